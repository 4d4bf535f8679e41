// cut_audit.h: what a power cut would lose, at each write of a run.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "models/cells.h"

namespace sim {

// A write cycle in which the power may fail. The operation that it begins is left unfinished: any bits of the words
// that it programs or writes may be done, any of a sector that it erases. Earlier cycles determine the other words.
struct cut_point {
  uint64_t nth = 0;      // number of the cycle, as the faults count that cut the power there
  uint32_t certain = 0;  // words that differ from the start of the run, outside of what the cycle tears
  uint64_t sum = 0;      // cut_sum() over these words
  uint32_t at_most = 0;  // `certain`, and the words that differ or may differ where the cycle tears
  uint32_t first = 0;    // what the cycle tears: offset and bytes, both 0 for nothing
  uint32_t length = 0;
};

// A word's share in a checksum over sets of words and their contents.
[[nodiscard]] uint64_t cut_sum(uint32_t offset, uint16_t word);

// One memory's audit: it keeps, incrementally, which of its words differ from the start of the run, and for each phase
// of the run how many that can be at most. A phase is the longest run of cycles that do the same to the same place.
class cut_audit {
 public:
  // The contents at the start. The caller owns and keeps them.
  //   block  bytes, the largest piece that a cycle tears
  //   fault  cuts the power once " nth=N" is added
  cut_audit(std::string memory, std::span<const uint8_t> contents, uint32_t block, std::string fault);

  // A write cycle comes.
  void cycle();
  // It begins to program or write these words, in ascending order, or to erase [first, first + length). Before the
  // contents change.
  //   what  what is being done, and where
  //   usec  how long the chip is busy with it
  void tears(const std::string &what, std::span<const models::word_write> words, uint64_t usec);
  void tears(const std::string &what, uint32_t first, uint32_t length, uint64_t usec);
  // The operation that was begun last is done.
  void done();
  // The cycles since the last one that tore anything began nothing.
  void settle(const std::string &what);

  // A write cycle to memory whose words are written at once. Before the contents change; done() follows. Many words in
  // ascending order are a phase of their own.
  void write(const models::word_write &w);

  static constexpr const char *heading =
      "memory\trow\tphase\twrites\tat risk\t% of all\tbusy ms\tat risk\t% of all\twords lost at most\tthat cut\n";
  // The audit as text, empty if there was no write; see board-sim(1).
  [[nodiscard]] std::string table();

 private:
  struct phase {
    std::string row;  // what the program said it does
    std::string what;
    uint64_t writes = 0;
    uint64_t writes_at_risk = 0;
    uint64_t usec = 0;
    uint64_t usec_at_risk = 0;
    cut_point first, worst, last, any;

    phase(std::string row_begun, std::string done) : row(std::move(row_begun)), what(std::move(done)) {}
    void take(const cut_point &cut, uint64_t usec_busy, uint64_t *random);
  };
  struct difference {
    uint32_t words = 0;
    uint64_t sum = 0;
  };

  const std::string m_memory;
  const std::span<const uint8_t> m_contents;
  const uint32_t m_block;
  const std::string m_fault;
  const std::unique_ptr<uint8_t[]> m_start;  // those blocks that were torn
  std::vector<bool> m_kept;
  difference m_now;
  cut_point m_cut;                   // the present cycle
  std::vector<cut_point> m_waiting;  // cycles whose operation is not known yet
  std::vector<phase> m_phases;
  uint32_t m_next = 0;  // offset after the last word written
  unsigned m_passes = 0;
  bool m_in_pass = false;
  uint64_t m_random = 1;

  [[nodiscard]] uint16_t start_word(uint32_t offset) const;
  void keep_start(uint32_t first, uint32_t length);
  [[nodiscard]] difference differs(uint32_t first, uint32_t length) const;
  void tear(uint32_t first, uint32_t length);
  void put(const std::string &what, uint64_t usec);
  [[nodiscard]] std::string line(const phase &p, const phase &all) const;
  [[nodiscard]] std::string cuts(const phase &p) const;
};

}  // namespace sim

// flash_reads.h: faults of the flash's lines, from reads of what it holds.
//
// A fault of address lines lets several addresses reach one word; a fault of data lines forces bits of every word. Two
// of such addresses that differ, or a word without the forced bits, refute the fault. What is left may be a fault or
// the regularity of the contents. So evidence for an address fault are only equal words whose neighbours differ:
//
//   words at 00, 20 (line 5), 40 (line 6)   line 5 stuck   lines 5 and 6 shorted, 0 wins
//   a, b, ...                               refuted        refuted
//   a, a, b                                 evidence       refuted
//   a, a, a                                 possible       possible
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "locate/flash_bus.h"
#include "models/single_faults.h"

namespace locate {

using line_fault_list = std::vector<const models::single_line_fault *>;

class flash_reads {
 public:
  // The array must be readable.
  //   budget  number of reads
  explicit flash_reads(flash_bus *bus, unsigned budget = 2000);

  // Reads until every fault is refuted, one place is left with evidence, or the budget is spent.
  void run();

  // One more word of the array, which refutes what it contradicts. A word that is known already is not read again.
  uint16_t read(uint32_t offset);
  // Reads 32 of the words again, each so often. Returns the addresses of those that changed.
  [[nodiscard]] std::vector<uint32_t> read_again(unsigned rounds);

  // The faults that no read contradicts.
  [[nodiscard]] line_fault_list suspects() const;
  // Those of the one line, or pair of lines, that the evidence is for; none if there is no such line, or several.
  [[nodiscard]] line_fault_list proven() const;

  [[nodiscard]] size_t count() const { return m_words.size(); }
  // Whether every word was erased.
  [[nodiscard]] bool blank() const { return m_filled.empty(); }

 private:
  struct evidence {
    std::set<uint16_t> words;
    std::set<uint32_t> sectors;
  };
  using place = std::pair<bool, uint32_t>;  // whether of the address, and which lines
  [[nodiscard]] static place place_of(const models::single_line_fault &f) { return {f.address, f.bad.lines}; }

  void find_contents();
  void read_star(uint32_t base);
  void try_pair(const models::single_line_fault &f);
  [[nodiscard]] bool neighbours_differ(uint32_t from, uint32_t change, uint32_t lines);
  [[nodiscard]] uint32_t pick_address();
  [[nodiscard]] uint32_t random(uint32_t below);
  [[nodiscard]] bool contradicts(const models::single_line_fault &f, uint32_t offset, uint16_t word) const;
  [[nodiscard]] bool proves(const models::single_line_fault &f) const;
  [[nodiscard]] bool words_prove(const models::bad_lines &bad) const;
  [[nodiscard]] bool decided() const;

  flash_bus *m_bus;
  unsigned m_budget;
  uint64_t m_random = 1;
  uint16_t m_bus_levels = 0x00F0;  // as the reset left it
  std::vector<models::single_line_fault> m_faults;
  line_fault_list m_suspects;
  std::map<place, evidence> m_evidence;
  std::unordered_map<uint32_t, uint16_t> m_words;
  std::vector<uint32_t> m_filled;                   // addresses of words that are not erased
  std::map<uint16_t, std::set<uint32_t>> m_erased;  // their values, and in which sectors
  std::map<uint16_t, unsigned> m_values;            // of the others
};

}  // namespace locate

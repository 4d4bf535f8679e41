// The flash model beside QEMU's CFI flash of the AMD command set, cycle by cycle. What both have is driven at random;
// their differences are in the list `differences`, each with the reason, and must be seen.
//
// QEMU's chip has 512 sectors of 32 Ki words, ours twice as large ones: of each of ours, the lower half is used.
#include <algorithm>
#include <cstdlib>
#include <utility>

#include "models/nor_flash.h"
#include "tools/peers/compare.h"

namespace {

// The model's clock. It moves by call.
int64_t now_ns = 1;

constexpr uint32_t sectors = models::flash_sectors;
constexpr uint32_t sector_words = 0x8000;
constexpr uint32_t peers_bytes = sectors * sector_words * 2;
constexpr uint32_t peers_base = 0U - peers_bytes;  // the board's boot flash ends with the address space

enum status_bit : uint16_t { dq2 = 0x04, dq3 = 0x08, dq5 = 0x20, dq6 = 0x40, dq7 = 0x80 };

// A place that both chips have.
struct place {
  uint32_t sector;
  uint32_t word;
  [[nodiscard]] uint32_t ours() const { return sector * models::flash_sector_bytes + word * 2; }
  [[nodiscard]] uint32_t peers() const { return peers_base + (sector * sector_words + word) * 2; }
};

// What was read there.
struct reading {
  uint16_t ours;
  uint16_t peers;
};

struct cycle {
  uint32_t word;  // of the eleven address lines that commands look at
  uint8_t code;
  bool operator==(const cycle &) const = default;
};
using cycles = std::vector<cycle>;

// clang-format off
const cycles unlock     {{0x555, 0xAA}, {0x2AA, 0x55}};
const cycles program    {{0x555, 0xAA}, {0x2AA, 0x55}, {0x555, 0xA0}};
const cycles autoselect {{0x555, 0xAA}, {0x2AA, 0x55}, {0x555, 0x90}};
const cycles erase      {{0x555, 0xAA}, {0x2AA, 0x55}, {0x555, 0x80}, {0x555, 0xAA}, {0x2AA, 0x55}};

// What the query of this chip says otherwise, by word.
constexpr uint32_t other_words[] = {
    0x20, 0x21, 0x22, 0x24, 0x25, 0x26,  // times of the write buffer, of an erase, of the whole chip's
    0x27, 0x28, 0x2A,                    // size, bus widths, bytes of the write buffer
    0x30,                                // size of a sector
    0x44, 0x45, 0x46,                    // version of the table, unlocking, suspension of an erase
};

// "SHEET" is the data sheet of the S29GL-N family (Spansion), "JESD" is JEDEC JESD68.01, Common Flash Interface.
enum difference { other_chip, other_codes, free_times, dq2_elsewhere, ones_refused, busy_program, setup_read, broken_off, out_of_order, count };
listed differences[count]{
    {"words of query and autoselect that tell of another chip",
     "size, times, buffer, suspend: JESD 'System Interface Information', 'Device Geometry'; SHEET 'Autoselect Codes'"},
    {"autoselect words without a meaning: 0 here, the array there", "the sheet names the others: SHEET 'Autoselect Codes'"},
    {"the times of an operation", "the sheet gives typical and longest ones: SHEET 'Erase And Programming Performance'"},
    {"DQ2 outside the sectors that are erased: still here, toggles there",
     "only reads within them toggle it: SHEET 'DQ2: Toggle Bit II'"},
    {"programming 1 over 0: DQ5 until a reset here, success there",
     "the sheet allows both, and the 0 stays: SHEET 'Word Program Command Sequence'"},
    {"status of a program: DQ7 complement, DQ6 toggles here, none there",
     "their program takes no time: SHEET 'DQ7: Data# Polling', 'DQ6: Toggle Bit I'"},
    {"a read between the set-up of a program and its data: the array here, status there",
     "the sheet's sequence has no read there: SHEET 'Word Program Command Sequence'"},
    {"an erase that another command breaks off within its window: nothing is erased here, the sectors are there",
     "the erase begins when the window is over: SHEET 'Sector Erase Command Sequence'"},
    {"commands after a cycle out of order: none before a reset here, taken there",
     "the chip may need the reset: SHEET 'Command Definitions'"},
};
// clang-format on

class comparison {
 public:
  explicit comparison(uint64_t seed) : m_random(seed) {
    m_peer.write('l', 0, 0xEAFFFFFE);  // an endless loop, for when its time runs
  }

  // Goes on for so many bus cycles.
  void run(uint64_t cycles_wanted) {
    do_chip_erase();
    show_program_status();
    show_broken_erase();
    show_out_of_order();
    while (m_cycles < cycles_wanted && m_found.none()) {
      const uint32_t choice = m_random.below(100);
      if (choice < 50)
        do_program();
      else if (choice < 58)
        do_query();
      else if (choice < 64)
        do_autoselect();
      else if (choice < 68)
        do_erase();
      else if (choice < 78)
        do_wrong();
      else if (choice < 90)
        do_altered();
      else
        compare_some(20);
    }
  }

  void compare_contents() {
    settle();
    for (uint32_t s = 0; s < sectors; ++s) {
      const auto peers = m_peer.read_bytes(place{s, 0}.peers(), sector_words * 2);
      expect(std::equal(peers.begin(), peers.end(), &m_contents[s * models::flash_sector_bytes]), "contents", {s, 0},
             {});
      m_words += sector_words;
    }
  }

  [[nodiscard]] int report() const {
    std::printf("flash: %" PRIu64 " cycles, of them %" PRIu64 " reads of data and %" PRIu64
                " of status, the same on both;\n",
                m_cycles, m_reads, m_status_reads);
    std::printf("  %" PRIu64 " programs, %" PRIu64 " erases, %" PRIu64 " queries, %" PRIu64
                " cycles out of order; then %" PRIu64 " words of contents\n",
                m_programs, m_erases, m_queries, m_wrong, m_words);
    return m_found.report("flash");
  }

 private:
  // --- Cycles on both ---

  // Few sectors, so that they meet often.
  place anywhere() {
    return {m_random.below(8) * 73, m_random.one_in(2) ? m_random.below(64) : m_random.below(sector_words)};
  }
  place any_sector(uint32_t word) { return {m_random.below(sectors), word}; }

  void write(place at, uint16_t data) {
    m_model.write(at.ours(), data);
    m_peer.write('w', at.peers(), data);
    ++m_cycles;
  }
  void reset() { write(anywhere(), 0xF0); }

  // Command cycles, with anything on the lines that they do not look at.
  void give(const cycles &what) {
    for (const cycle &c : what)
      write({m_random.below(sectors), m_random.below(sector_words / 0x800) * 0x800 + c.word},
            static_cast<uint16_t>(m_random.below(0x100) << 8U | c.code));
  }

  uint16_t read_peer(place at) { return static_cast<uint16_t>(m_peer.read('w', at.peers())); }
  reading read(place at) {
    ++m_cycles;
    return {m_model.read(at.ours()), read_peer(at)};
  }

  void expect(bool same, const char *what, place at, reading r) {
    if (!same)
      m_found.differ("cycle %" PRIu64 ": %s of sector %u word %x: %04x here, %04x there\n", m_cycles, what, at.sector,
                     at.word, r.ours, r.peers);
  }

  void compare(place at) {
    const reading r = read(at);
    ++m_reads;
    expect(r.ours == r.peers, "data", at, r);
  }
  void compare_some(uint32_t most) {
    for (uint32_t reads = m_random.below(most + 1); reads != 0; reads--)
      compare(anywhere());
  }

  [[nodiscard]] bool in_array() {
    (void)m_model.read(0);
    return m_model.reads_array();
  }

  // --- Operations in progress ---

  // A status read during an erase. Toggling bits may start as they like: what counts is whether they change.
  void status(place at) {
    const bool inside = std::ranges::find(m_erasing, at.sector) != m_erasing.end();
    const reading r = read(at);
    ++m_status_reads;
    constexpr unsigned toggling = dq2 | dq6;
    expect((r.ours & ~toggling) == (r.peers & ~toggling), "status", at, r);
    const auto [last, known] = std::exchange(m_last, {r, true});
    if (!known) return;
    const unsigned change = r.ours ^ last.ours;
    const unsigned change_there = r.peers ^ last.peers;
    expect((change & dq6) == (change_there & dq6) && (change & dq6) != 0, "DQ6", at, r);
    if (inside) return expect((change & change_there & dq2) != 0, "DQ2", at, r);
    expect((change & dq2) == 0 && (change_there & dq2) != 0, "DQ2 elsewhere", at, r);
    m_found.see(dq2_elsewhere);
  }

  void begin_erase(const std::vector<uint32_t> &marked) {
    give(erase);
    for (const uint32_t sector : marked)
      write({sector, 0}, 0x30);
    m_erasing = marked;
  }

  // Lets the peer's time run until its status has one of these bits.
  void run_peer_until(unsigned bits) {
    m_peer.run();
    while ((read_peer({m_erasing[0], 0}) & bits) == 0) {
    }
    m_peer.stop();
  }

  // The erase's window is over, but not the erase.
  void close_window() {
    now_ns += 60'000;
    run_peer_until(dq3 | dq7);
    m_last = {};
    // After a long enough wait the erase is over.
    if ((read_peer({m_erasing[0], 0}) & dq7) != 0) finish();
  }

  void finish() {
    now_ns += int64_t{1'000'000'000'000};
    if (!m_erasing.empty()) {
      run_peer_until(dq7);
      m_found.see(free_times);
    }
    m_erasing.clear();
    m_last = {};
  }

  // Every operation is over, and both read their array again.
  void settle_without_reads() {
    reset();
    finish();
    if (!in_array()) reset();
    reset();
    expect(in_array(), "settling", {}, {});
  }
  void settle() {
    settle_without_reads();
    compare_some(4);
  }

  void watch_erase() {
    for (uint32_t reads = m_random.below(6); reads != 0 && !m_erasing.empty(); reads--)
      status(m_random.one_in(2) ? place{m_erasing[m_random.below(static_cast<uint32_t>(m_erasing.size()))],
                                        m_random.below(sector_words)}
                                : anywhere());
  }

  // Within the window, another command ends the erase. The peer has its sectors erased: both erase them then.
  void break_off() {
    const auto begun = std::exchange(m_erasing, {});
    m_last = {};
    write(anywhere(), m_random.one_in(2) ? 0xF0 : 0xAA);
    for (int i = 0; i < 4; ++i) {
      const place at = i == 0 ? place{begun[0], 0} : anywhere();
      const reading r = read(at);
      const bool erased = std::ranges::find(begun, at.sector) != begun.end();
      expect(r.ours == models::word_get(m_contents, at.ours()), "kept data", at, r);
      expect(r.peers == (erased ? 0xFFFF : r.ours), "data after an erase broken off", at, r);
      if (r.ours != r.peers) m_found.see(broken_off);
    }
    settle_without_reads();
    begin_erase(begun);
    close_window();
    finish();
  }

  // --- What is driven at random ---

  void do_program() {
    const place at = anywhere();
    give(program);
    write(at, m_random.one_in(8) ? 0xFFFF : static_cast<uint16_t>(m_random.below(0x10000)));
    ++m_programs;
    finish();
    const uint16_t ours = m_model.read(at.ours());
    if (!m_model.reads_array()) {
      expect((ours & dq5) != 0, "DQ5", at, {ours, 0});
      m_found.see(ones_refused);
      write(at, 0xF0);
    }
    compare(at);
  }

  void do_query() {
    const bool in_autoselect = m_random.one_in(3);
    if (in_autoselect) give(autoselect);
    give({{0x055, 0x98}});
    ++m_queries;
    for (uint32_t reads = 1 + m_random.below(12); reads != 0; reads--) {
      const place at{m_random.below(sectors), 0x10 + m_random.below(0x41)};
      if (std::ranges::find(other_words, at.word) == std::end(other_words)) {
        compare(at);
        continue;
      }
      const reading r = read(at);
      expect(r.ours != r.peers, "query, which both have,", at, r);
      m_found.see(other_chip);
    }
    reset();
    if (in_autoselect) {
      compare(any_sector(2));  // the query was left, not autoselect
      reset();
    }
    compare_some(2);
  }

  void do_autoselect() {
    give(autoselect);
    ++m_queries;
    compare(any_sector(2));  // no sector is protected
    const place codes[] = {any_sector(0), any_sector(1), {m_random.below(8) * 73, 0x20 + m_random.below(0x20)}};
    const reading expected[] = {{0x0001, 0x00BF}, {0x227E, 0x236D}, {0, models::word_get(m_contents, codes[2].ours())}};
    for (size_t i = 0; i < 3; ++i) {
      const reading r = read(codes[i]);
      expect(r.ours == expected[i].ours && r.peers == expected[i].peers, "autoselect", codes[i], r);
      m_found.see(i == 2 ? other_codes : other_chip);
    }
    reset();
    compare_some(2);
  }

  void do_erase() {
    give(erase);
    for (uint32_t more = 1 + m_random.below(3); more != 0; more--) {
      const place at = anywhere();
      write(at, 0x30);
      m_erasing.push_back(at.sector);
      watch_erase();
    }
    ++m_erases;
    if (m_random.one_in(4)) return break_off();
    close_window();
    watch_erase();
    if (!m_erasing.empty() && m_random.one_in(2)) write(anywhere(), m_random.one_in(2) ? 0xF0 : 0xAA);
    watch_erase();
    finish();
    for (int i = 0; i < 4; ++i)
      compare(anywhere());
  }

  void do_chip_erase() {
    give(erase);
    give({{0x555, 0x10}});
    ++m_erases;
    for (uint32_t s = 0; s < sectors; ++s)
      m_erasing.push_back(s);
    close_window();
    watch_erase();
    finish();
    compare_some(20);
  }

  // A command that breaks off, and a cycle that does not belong there: data are read, a reset gets out of it.
  void do_wrong() {
    const cycles *const commands[] = {&unlock, &program, &autoselect, &erase};
    cycles begun = *commands[m_random.below(4)];
    begun.resize(m_random.below(static_cast<uint32_t>(begun.size() + 1)));
    give(begun);
    if (begun.size() < 3 || begun == erase) compare_some(2);
    // Suspend, unlock bypass and the write buffer are not common to both; a whole chip is not erased by chance.
    constexpr uint8_t codes[] = {0xAA, 0x55, 0x80, 0x90, 0x98, 0xA0, 0xF0, 0x00, 0xFF, 0x70};
    constexpr uint32_t words[] = {0x555, 0x2AA, 0x055, 0x000, 0x554};
    const uint32_t word = m_random.one_in(3) ? m_random.below(0x800) : words[m_random.below(5)];
    give({{word, codes[m_random.below(10)]}});
    ++m_wrong;
    settle();
  }

  // A command with one bit wrong in one cycle does nothing.
  void do_altered() {
    cycles all = m_random.one_in(2) ? program : erase;
    cycle &altered = all[m_random.below(static_cast<uint32_t>(all.size()))];
    if (m_random.one_in(2))
      altered.word ^= 1U << m_random.below(11);
    else
      altered.code ^= static_cast<uint8_t>(1U << m_random.below(4));
    give(all);
    write(anywhere(), 0x0030);
    ++m_wrong;
    compare_some(2);
    settle();
  }

  // --- What is shown once, in the last sector ---

  void show_program_status() {
    settle();
    const place at{511, 5};
    begin_erase({511});
    close_window();
    finish();
    give(program);
    const reading begun{m_model.read(at.ours()), read_peer(at)};
    expect(begun.ours == 0xFFFF && begun.peers != 0xFFFF, "read before the data", at, begun);
    m_found.see(setup_read);
    write(at, 0x0080);
    const uint16_t first = m_model.read(at.ours());
    const uint16_t second = m_model.read(at.ours());
    expect((first & dq7) == 0 && ((first ^ second) & dq6) != 0, "status of a program", at, {first, second});
    expect(read_peer(at) == 0x0080, "program", at, {first, 0});
    m_found.see(busy_program);
    finish();
    compare(at);
  }

  void show_broken_erase() {
    settle();
    const place at{511, 0};
    give(program);
    write(at, 0x1234);
    finish();
    compare(at);
    begin_erase({511});
    break_off();
  }

  void show_out_of_order() {
    settle();
    give({{0x555, 0xAA}, {0x555, 0x00}});
    give({{0x055, 0x98}});
    const place at{511, 0x10};
    const reading r{m_model.read(at.ours()), read_peer(at)};
    expect(r.ours != 'Q' && r.peers == 'Q', "a command after a cycle out of order", at, r);
    m_found.see(out_of_order);
    settle();
  }

  random_numbers m_random;
  findings m_found{differences};
  std::vector<uint8_t> m_contents = std::vector<uint8_t>(models::flash_bytes, 0xFF);
  models::nor_flash m_model{
      models::memory(m_contents), {}, {.times = models::flash_times_real, .now = [] { return now_ns; }}};
  qemu m_peer{"qemu-system-arm",
              {"-M", "musicpal", "-icount", "shift=6,sleep=off", "-drive",
               "if=pflash,format=raw,file=" + make_file(std::vector<uint8_t>(peers_bytes, 0xFF))}};

  std::vector<uint32_t> m_erasing;  // sectors; empty when none is
  struct {
    reading read;
    bool known;
  } m_last{};
  uint64_t m_cycles = 0, m_reads = 0, m_status_reads = 0, m_programs = 0, m_queries = 0, m_erases = 0, m_wrong = 0;
  uint64_t m_words = 0;
};

}  // namespace

// peer_flash CYCLES SEED
int main(int argc, char **argv) {
  if (argc != 3) give_up("usage: peer_flash CYCLES SEED");
  comparison both(std::strtoull(argv[2], nullptr, 0));
  both.run(std::strtoull(argv[1], nullptr, 0));
  both.compare_contents();
  return both.report();
}

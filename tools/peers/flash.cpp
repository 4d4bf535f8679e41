// The flash model beside QEMU's CFI flash of the AMD command set, cycle by cycle. What both have is driven at random;
// what they do otherwise stands in the list `differences`, each with the reason, and must be seen.
//
// QEMU's chip has 512 sectors of 32 Ki words, ours twice as large ones: of each of ours, the lower half is used.
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "sim/board/random.h"
#include "sim/devices/flash.h"
#include "tools/peers/qemu.h"

// The model's clock. It moves by call.
static int64_t now_ns = 1;
extern "C" int __wrap_clock_gettime(clockid_t id, timespec *time);
extern "C" int __wrap_clock_gettime(clockid_t /*id*/, timespec *time) {
  *time = {static_cast<time_t>(now_ns / 1'000'000'000), static_cast<long>(now_ns % 1'000'000'000)};
  return 0;
}

namespace {

constexpr uint32_t sectors = sim::flash_sectors;
constexpr uint32_t sector_words = 0x8000;
constexpr uint32_t peers_bytes = sectors * sector_words * 2;
constexpr uint32_t peers_base = 0U - peers_bytes;  // the board's boot flash ends with the address space

enum status_bit : uint16_t { dq2 = 0x04, dq3 = 0x08, dq5 = 0x20, dq6 = 0x40, dq7 = 0x80 };

// A place that both chips have.
struct place {
  uint32_t sector;
  uint32_t word;
  [[nodiscard]] uint32_t ours() const { return sector * sim::flash_sector_bytes + word * 2; }
  [[nodiscard]] uint32_t peers() const { return peers_base + (sector * sector_words + word) * 2; }
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

// "SHEET" is the data sheet of the S29GL-N family (Spansion), "JESD" is JEDEC JESD68.01, Common Flash Interface.
enum difference { other_chip, other_codes, free_times, dq2_elsewhere, ones_refused, busy_program, setup_read, broken_off, out_of_order, count };
struct reason { const char *what; const char *why; uint64_t seen; };
reason differences[count]{
    {"words of query and autoselect that tell of another chip",
     "size, times, buffer, suspend: JESD 'System Interface Information', 'Device Geometry'; SHEET 'Autoselect Codes'", 0},
    {"autoselect words without a meaning: 0 here, the array there", "the sheet names the others: SHEET 'Autoselect Codes'", 0},
    {"the times of an operation", "the sheet gives typical and longest ones: SHEET 'Erase And Programming Performance'", 0},
    {"DQ2 outside the sectors that are erased: still here, toggles there",
     "only reads within them toggle it: SHEET 'DQ2: Toggle Bit II'", 0},
    {"programming 1 over 0: DQ5 until a reset here, success there",
     "the sheet allows both, and the 0 stays: SHEET 'Word Program Command Sequence'", 0},
    {"status of a program: DQ7 complement, DQ6 toggles here, none there",
     "their program takes no time: SHEET 'DQ7: Data# Polling', 'DQ6: Toggle Bit I'", 0},
    {"a read between the set-up of a program and its data: the array here, status there",
     "the sheet's sequence has no read there: SHEET 'Word Program Command Sequence'", 0},
    {"an erase that another command breaks off within its window: nothing is erased here, the sectors are there",
     "the erase begins when the window is over: SHEET 'Sector Erase Command Sequence'", 0},
    {"commands after a cycle out of order: none before a reset here, taken there",
     "the chip may need the reset: SHEET 'Command Definitions'", 0},
};
// clang-format on

class comparison {
 public:
  comparison(const std::string &image, uint64_t seed);

  // Goes on for so many bus cycles.
  void run(uint64_t cycles_wanted);
  void compare_contents();
  [[nodiscard]] int report() const;

 private:
  // `below`, exclusive.
  uint32_t number(uint32_t below) { return static_cast<uint32_t>(sim::random_next(&m_random) >> 32U) % below; }
  bool chance(uint32_t in) { return number(in) == 0; }
  // Few sectors, so that they meet often.
  place anywhere() { return {number(8) * 73, chance(2) ? number(64) : number(sector_words)}; }

  void write(place at, uint16_t data);
  void give(const cycles &what);
  void expect(bool same, const char *what, place at, uint16_t ours, uint16_t peers);
  void compare(place at);
  void compare_some(uint32_t most);
  void status(place at);
  void forget_status();

  void settle();
  void settle_without_reads();
  void break_off();
  void finish();
  void close_window();

  void do_program();
  void do_query();
  void do_autoselect();
  void do_erase();
  void do_chip_erase();
  void do_wrong();
  void do_altered();
  void watch_erase();
  void show_program_status();
  void show_broken_erase();
  void show_out_of_order();

  static std::vector<uint8_t> blank() { return std::vector<uint8_t>(sim::flash_bytes, 0xFF); }

  uint64_t m_random;
  std::vector<uint8_t> m_contents = blank();
  sim::options m_options;
  sim::flash_model m_model;
  qemu m_peer;

  std::vector<uint32_t> m_erasing;  // sectors; empty when none is
  struct last_status {
    uint16_t ours, peers;
    bool known;
  } m_last{};
  uint64_t m_cycles = 0, m_reads = 0, m_status_reads = 0, m_programs = 0, m_queries = 0, m_erases = 0, m_wrong = 0;
  uint64_t m_words = 0, m_bad = 0;
};

comparison::comparison(const std::string &image, uint64_t seed)
    : m_random(seed),
      m_peer("qemu-system-arm",
             {"-M", "musicpal", "-icount", "shift=6,sleep=off", "-drive", "if=pflash,format=raw,file=" + image}) {
  m_options.busy = sim::busy::time;
  m_options.real_times = true;
  m_model.start(m_contents, m_options);
  m_peer.write('l', 0, 0xEAFFFFFE);  // an endless loop, for when its time runs
}

void comparison::write(place at, uint16_t data) {
  m_model.write(at.ours(), data);
  m_peer.write('w', at.peers(), data);
  ++m_cycles;
}

// Command cycles, with anything on the lines that they do not look at.
void comparison::give(const cycles &what) {
  for (const cycle &c : what)
    write({number(sectors), number(sector_words / 0x800) * 0x800 + c.word},
          static_cast<uint16_t>(number(0x100) << 8U | c.code));
}

void comparison::expect(bool same, const char *what, place at, uint16_t ours, uint16_t peers) {
  if (same || m_bad++ >= 20) return;
  std::printf("cycle %llu: %s of sector %u word %x: %04x here, %04x there\n", static_cast<unsigned long long>(m_cycles),
              what, at.sector, at.word, ours, peers);
}

void comparison::compare(place at) {
  const uint16_t ours = m_model.read(at.ours());
  const auto peers = static_cast<uint16_t>(m_peer.read('w', at.peers()));
  ++m_cycles;
  ++m_reads;
  expect(ours == peers, "data", at, ours, peers);
}

void comparison::compare_some(uint32_t most) {
  for (uint32_t reads = number(most + 1); reads != 0; reads--)
    compare(anywhere());
}

// A status read during an erase. Toggling bits may start as they like: what counts is whether they change.
void comparison::status(place at) {
  const bool inside = std::ranges::find(m_erasing, at.sector) != m_erasing.end();
  const uint16_t ours = m_model.read(at.ours());
  const auto peers = static_cast<uint16_t>(m_peer.read('w', at.peers()));
  ++m_cycles;
  ++m_status_reads;
  constexpr unsigned toggling = dq2 | dq6;
  expect((ours & ~toggling) == (peers & ~toggling), "status", at, ours, peers);
  const unsigned change = ours ^ m_last.ours;
  const unsigned change_there = peers ^ m_last.peers;
  const bool known = std::exchange(m_last, {ours, peers, true}).known;
  if (!known) return;
  expect((change & dq6) == (change_there & dq6) && (change & dq6) != 0, "DQ6", at, ours, peers);
  if (inside) return expect((change & change_there & dq2) != 0, "DQ2", at, ours, peers);
  expect((change & dq2) == 0 && (change_there & dq2) != 0, "DQ2 elsewhere", at, ours, peers);
  differences[dq2_elsewhere].seen++;
}

void comparison::forget_status() {
  m_last = {};
}

// The erase's window is over, but not the erase.
void comparison::close_window() {
  now_ns += 60'000;
  const place at{m_erasing[0], 0};
  m_peer.run();
  while ((m_peer.read('w', at.peers()) & (dq3 | dq7)) == 0) {
  }
  m_peer.stop();
  forget_status();
  // A process that waited long enough has the erase behind it.
  if ((m_peer.read('w', at.peers()) & dq7) != 0) finish();
}

void comparison::finish() {
  now_ns += int64_t{1'000'000'000'000};
  if (!m_erasing.empty()) {
    const place at{m_erasing[0], 0};
    m_peer.run();
    while ((m_peer.read('w', at.peers()) & dq7) == 0) {
    }
    m_peer.stop();
    ++differences[free_times].seen;
  }
  m_erasing.clear();
  forget_status();
}

// Whatever was begun is over, and both read their array again.
void comparison::settle() {
  settle_without_reads();
  compare_some(4);
}

void comparison::settle_without_reads() {
  write(anywhere(), 0xF0);
  finish();
  (void)m_model.read(0);
  if (!m_model.reads_array()) write(anywhere(), 0xF0);
  write(anywhere(), 0xF0);
  (void)m_model.read(0);
  expect(m_model.reads_array(), "settling", {0, 0}, 0, 0);
}

void comparison::do_program() {
  const place at = anywhere();
  give(program);
  write(at, chance(8) ? 0xFFFF : static_cast<uint16_t>(number(0x10000)));
  ++m_programs;
  finish();
  (void)m_model.read(at.ours());
  if (!m_model.reads_array()) {
    expect((m_model.read(at.ours()) & dq5) != 0, "DQ5", at, 0, 0);
    ++differences[ones_refused].seen;
    write(at, 0xF0);
  }
  compare(at);
}

// What the query of this chip says otherwise, by word.
// clang-format off
constexpr uint32_t other_words[] = {
    0x20, 0x21, 0x22, 0x24, 0x25, 0x26,  // times of the write buffer, of an erase, of the whole chip's
    0x27, 0x28, 0x2A,                    // size, bus widths, bytes of the write buffer
    0x30,                                // size of a sector
    0x44, 0x45, 0x46,                    // version of the table, unlocking, suspension of an erase
};
// clang-format on

void comparison::do_query() {
  const bool in_autoselect = chance(3);
  if (in_autoselect) give(autoselect);
  give({{0x055, 0x98}});
  ++m_queries;
  for (uint32_t reads = 1 + number(12); reads != 0; reads--) {
    const place at{number(sectors), 0x10 + number(0x41)};
    if (std::ranges::find(other_words, at.word) == std::end(other_words)) {
      compare(at);
      continue;
    }
    const uint16_t ours = m_model.read(at.ours());
    const auto peers = static_cast<uint16_t>(m_peer.read('w', at.peers()));
    ++m_cycles;
    expect(ours != peers, "query, which both have,", at, ours, peers);
    ++differences[other_chip].seen;
  }
  write(anywhere(), 0xF0);
  if (in_autoselect) {
    compare({number(sectors), 2});  // the query was left, not autoselect
    write(anywhere(), 0xF0);
  }
  compare_some(2);
}

void comparison::do_autoselect() {
  give(autoselect);
  ++m_queries;
  compare({number(sectors), 2});  // no sector is protected
  const place codes[] = {{number(sectors), 0}, {number(sectors), 1}, {number(8) * 73, 0x20 + number(0x20)}};
  const uint16_t array = sim::word_get(m_contents, codes[2].ours());
  const uint16_t ours[] = {0x0001, 0x227E, 0x0000};
  const uint16_t peers[] = {0x00BF, 0x236D, array};
  for (size_t i = 0; i < 3; i++, m_cycles++) {
    const uint16_t here = m_model.read(codes[i].ours());
    const auto there = static_cast<uint16_t>(m_peer.read('w', codes[i].peers()));
    expect(here == ours[i] && there == peers[i], "autoselect", codes[i], here, there);
    differences[i == 2 ? other_codes : other_chip].seen++;
  }
  write(anywhere(), 0xF0);
  compare_some(2);
}

void comparison::watch_erase() {
  for (uint32_t reads = number(6); reads != 0 && !m_erasing.empty(); reads--)
    status(chance(2) ? place{m_erasing[number(static_cast<uint32_t>(m_erasing.size()))], number(sector_words)}
                     : anywhere());
}

// Within the window, another command ends the erase. The peer has its sectors erased: both erase them then.
void comparison::break_off() {
  const place marked{m_erasing[0], 0};
  const auto sectors_begun = std::exchange(m_erasing, {});
  forget_status();
  write(anywhere(), chance(2) ? 0xF0 : 0xAA);
  for (int i = 0; i < 4; ++i) {
    const place at = i == 0 ? marked : anywhere();
    const uint16_t here = m_model.read(at.ours());
    const auto there = static_cast<uint16_t>(m_peer.read('w', at.peers()));
    ++m_cycles;
    const bool begun = std::ranges::find(sectors_begun, at.sector) != sectors_begun.end();
    expect(here == sim::word_get(m_contents, at.ours()), "kept data", at, here, there);
    expect(there == (begun ? 0xFFFF : here), "data after an erase broken off", at, here, there);
    if (here != there) differences[broken_off].seen++;
  }
  settle_without_reads();
  give(erase);
  for (const uint32_t sector : sectors_begun)
    write({sector, 0}, 0x30);
  m_erasing = sectors_begun;
  close_window();
  finish();
}

void comparison::do_erase() {
  give(erase);
  for (uint32_t more = 1 + number(3); more != 0; more--) {
    const place at = anywhere();
    write(at, 0x30);
    m_erasing.push_back(at.sector);
    watch_erase();
  }
  ++m_erases;
  if (chance(4)) return break_off();
  close_window();
  watch_erase();
  if (!m_erasing.empty() && chance(2)) write(anywhere(), chance(2) ? 0xF0 : 0xAA);
  watch_erase();
  finish();
  for (int i = 0; i < 4; ++i)
    compare(anywhere());
}

void comparison::do_chip_erase() {
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
void comparison::do_wrong() {
  const cycles *const commands[] = {&unlock, &program, &autoselect, &erase};
  cycles begun = *commands[number(4)];
  begun.resize(number(static_cast<uint32_t>(begun.size() + 1)));
  give(begun);
  if (begun.size() < 3 || begun == erase) compare_some(2);
  // Suspend, unlock bypass and the write buffer are not common to both; a whole chip is not erased by chance.
  constexpr uint8_t codes[] = {0xAA, 0x55, 0x80, 0x90, 0x98, 0xA0, 0xF0, 0x00, 0xFF, 0x70};
  constexpr uint32_t words[] = {0x555, 0x2AA, 0x055, 0x000, 0x554};
  give({{chance(3) ? number(0x800) : words[number(5)], codes[number(10)]}});
  ++m_wrong;
  settle();
}

// A command with one bit wrong in one cycle does nothing.
void comparison::do_altered() {
  const cycles *const commands[] = {&program, &erase};
  cycles all = *commands[number(2)];
  cycle &altered = all[number(static_cast<uint32_t>(all.size()))];
  if (chance(2))
    altered.word ^= 1U << number(11);
  else
    altered.code ^= static_cast<uint8_t>(1U << number(4));
  give(all);
  write(anywhere(), 0x0030);
  ++m_wrong;
  compare_some(2);
  settle();
}

void comparison::show_program_status() {
  settle();
  const place at{511, 5};
  give(erase);
  write(at, 0x30);
  m_erasing = {511};
  close_window();
  finish();
  give(program);
  const uint16_t array = m_model.read(at.ours());
  const auto peers = static_cast<uint16_t>(m_peer.read('w', at.peers()));
  expect(array == 0xFFFF && peers != 0xFFFF, "read before the data", at, array, peers);
  ++differences[setup_read].seen;
  write(at, 0x0080);
  const uint16_t first = m_model.read(at.ours());
  const uint16_t second = m_model.read(at.ours());
  expect((first & dq7) == 0 && ((first ^ second) & dq6) != 0, "status of a program", at, first, second);
  expect(m_peer.read('w', at.peers()) == 0x0080, "program", at, first, 0);
  ++differences[busy_program].seen;
  finish();
  compare(at);
}

void comparison::show_broken_erase() {
  settle();
  const place at{511, 0};
  give(program);
  write(at, 0x1234);
  finish();
  compare(at);
  give(erase);
  write(at, 0x30);
  m_erasing = {511};
  break_off();
}

void comparison::show_out_of_order() {
  settle();
  const place at{511, 9};
  give({{0x555, 0xAA}, {0x555, 0x00}});
  give({{0x055, 0x98}});
  const uint16_t ours = m_model.read(place{511, 0x10}.ours());
  const auto peers = static_cast<uint16_t>(m_peer.read('w', place{511, 0x10}.peers()));
  expect(ours != 'Q' && peers == 'Q', "a command after a cycle out of order", at, ours, peers);
  ++differences[out_of_order].seen;
  settle();
}

void comparison::run(uint64_t cycles_wanted) {
  do_chip_erase();
  show_program_status();
  show_broken_erase();
  show_out_of_order();
  while (m_cycles < cycles_wanted && m_bad == 0) {
    const uint32_t choice = number(100);
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

void comparison::compare_contents() {
  settle();
  for (uint32_t s = 0; s < sectors; ++s) {
    const auto *const ours = &m_contents[s * sim::flash_sector_bytes];
    const auto peers = m_peer.read_bytes(place{s, 0}.peers(), sector_words * 2);
    if (!std::equal(peers.begin(), peers.end(), ours)) expect(false, "contents", {s, 0}, 0, 0);
    m_words += sector_words;
  }
}

int comparison::report() const {
  const auto of = [](uint64_t n) { return static_cast<unsigned long long>(n); };
  std::printf("flash: %llu cycles, of them %llu reads of data and %llu of status, the same on both;\n", of(m_cycles),
              of(m_reads), of(m_status_reads));
  std::printf("  %llu programs, %llu erases, %llu queries, %llu cycles out of order; then %llu words of contents\n",
              of(m_programs), of(m_erases), of(m_queries), of(m_wrong), of(m_words));
  bool all_seen = true;
  for (const reason &d : differences) {
    std::printf("  listed: %s (seen %llu times)\n    %s\n", d.what, of(d.seen), d.why);
    all_seen = all_seen && d.seen != 0;
  }
  if (!all_seen) std::printf("flash: a difference that is listed was not seen\n");
  std::printf("flash: %llu differences that are not listed\n", of(m_bad));
  return m_bad == 0 && all_seen ? 0 : 1;
}

// The peer's chip, blank.
std::string make_image() {
  std::string path = std::filesystem::temp_directory_path() / "flash-XXXXXX";
  const int fd = mkstemp(path.data());
  const std::vector<uint8_t> blank(peers_bytes, 0xFF);
  if (fd < 0 || ::write(fd, blank.data(), blank.size()) != static_cast<ssize_t>(blank.size()))
    give_up(path + ": cannot be written");
  (void)close(fd);
  return path;
}

}  // namespace

// peer_flash CYCLES SEED
int main(int argc, char **argv) {
  if (argc != 3) give_up("usage: peer_flash CYCLES SEED");
  const std::string image = make_image();
  comparison both(image, std::strtoull(argv[2], nullptr, 0));
  (void)unlink(image.c_str());
  both.run(std::strtoull(argv[1], nullptr, 0));
  both.compare_contents();
  return both.report();
}

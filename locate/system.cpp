// system.cpp: what POST's start-up needs, and what waits and operations of the flash depend on.
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <x86intrin.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "locate/device.h"
#include "locate/flash_bus.h"
#include "locate/parts.h"
#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "platform/mfgd/cmn_lib/diag_util/signal_hold.h"
#include "post/dorvan/cards.h"
#include "post/dorvan/pfm_card.h"

namespace locate {
namespace {

// --- files and services

void check_record_directory(part_result *result) {
  struct stat status {};
  const bool exists = stat("/post", &status) == 0;
  if (exists && S_ISDIR(status.st_mode)) return;
  add_finding({.sentence = "There is no directory /post: POST cannot leave its records.",
               .evidence = {exists ? "it is a file" : os_error("/post")},
               .candidates = {"post-missing"},
               .next = "mkdir /post"},
              result);
}

// Asks the driver more often than POST does: it may refuse only later requests.
void check_driver(part_result *result) {
  constexpr int requests = 16;
  for (int i = 0; i < requests; ++i) {
    uint16_t index = PFM_CARD_UNKNOWN;
    ++result->accesses;
    errno = 0;
    const bool opened = pfm_ask_driver(SPROM_IOC_GET_CARD_INDEX, &index);
    const int error = errno;
    if (opened && index != PFM_CARD_UNKNOWN) continue;
    add_finding({.sentence = opened ? "The SPROM driver refuses requests." : "/dev/sprom cannot be opened.",
                 .evidence = {"request " + std::to_string(i + 1) + ": " + std::strerror(error)},
                 .candidates = {opened ? "sprom-refuse" : "sprom-absent"},
                 .next = opened ? "see the kernel's log" : "load the SPROM driver"},
                result);
    return;
  }
}

// --- clock

// Cycles of the time-stamp counter in a microsecond, by the kernel's clock; of several tries the one in between.
double measured_mhz() {
  constexpr timespec pause{0, 3'000'000};
  std::array<double, 5> rates{};
  for (auto &rate : rates) {
    timespec from{};
    timespec to{};
    (void)clock_gettime(CLOCK_MONOTONIC, &from);
    const uint64_t before = __rdtsc();
    (void)nanosleep(&pause, nullptr);
    (void)clock_gettime(CLOCK_MONOTONIC, &to);
    const uint64_t cycles = __rdtsc() - before;
    const double usec =
        1e6 * static_cast<double>(to.tv_sec - from.tv_sec) + 1e-3 * static_cast<double>(to.tv_nsec - from.tv_nsec);
    rate = static_cast<double>(cycles) / usec;
  }
  std::ranges::sort(rates);
  return rates[rates.size() / 2];
}

std::string mhz_text(double mhz) {
  char text[48];
  (void)std::snprintf(text, sizeof text, "%.3f MHz", mhz);
  return text;
}

// POST counts cycles to wait. A processor that saves power may name another rate than its counter has, but not by much.
void check_clock(part_result *result) {
  constexpr double most = 2.5;
  errno = 0;
  std::ifstream cpuinfo("/proc/cpuinfo");
  finding wrong{.next = "check the kernel's processor driver; waits of POST depend on it"};
  if (!cpuinfo) {
    wrong.sentence = std::string("/proc/cpuinfo cannot be opened: ") + std::strerror(errno) + ".";
    wrong.candidates = {"cpuinfo-missing"};
    return add_finding(std::move(wrong), result);
  }
  std::string line;
  while (std::getline(cpuinfo, line) && !line.starts_with("cpu MHz")) {
  }
  if (!cpuinfo) {
    wrong.sentence = "/proc/cpuinfo shows no clock rate.";
    wrong.candidates = {"cpuinfo-no-rate"};
    return add_finding(std::move(wrong), result);
  }
  const double named = std::strtod(line.c_str() + std::min(line.find(':') + 1, line.size()), nullptr);
  const double measured = measured_mhz();
  if (named > measured / most && named < measured * most) return;
  wrong.sentence = "The clock rate in /proc/cpuinfo is wrong: waits of POST are too " +
                   std::string(named < measured ? "short." : "long.");
  wrong.evidence = {mhz_text(named) + " named, " + mhz_text(measured) + " measured"};
  wrong.candidates = {"cpuinfo-rate khz=" + std::to_string(std::llround(std::max(named, 0.0) * 1000))};
  add_finding(std::move(wrong), result);
}

// --- locks

void check_locks(part_result *result) {
  for (const auto &row : memories) {
    for (const char *const kind : {"read", "write"}) {
      const auto path = "/var/lock/" + lock_name(row, kind) + ".lock";
      const unique_fd file(open(path.c_str(), O_RDWR | O_CLOEXEC));
      const auto holder = file ? lock_holder(file.get()) : "";
      if (holder.empty()) continue;
      add_finding({.sentence = "A lock that POST waits for is held by " + holder + ".",
                   .evidence = {path},
                   .candidates = {std::string("lock-held lock=") + row.part + " kind=" + kind},
                   .next = "let it end; POST waits without a limit"},
                  result);
    }
  }
}

// --- bridge

struct bar_row {
  uint32_t size;  // bytes, at least
  bool io;
};
// The bridge's own registers, twice, the NVRAM and the flash (PLX PCI 9030 data book, "PCI Configuration Registers").
constexpr std::array<bar_row, 6> bars{
    {{0x80, false}, {0x80, true}, {0x8000, false}, {0x8000, false}, {0x8000, false}, {models::flash_bytes, false}}};

void check_bar(const pci_dev_line_t &bridge, unsigned number, part_result *result) {
  const uint32_t value = bridge.m_base[number];
  const auto &bar = bars[number];
  const char *kind = nullptr;
  if ((value & ~bar_flags) == 0 || bridge.m_size[number] < bar.size)
    kind = "bar-missing";
  else if (!bar.io && (value & bar_is_io) != 0)
    kind = "bar-io";
  else if ((value & (bar_is_io | bar_is_64bit)) == bar_is_64bit)
    kind = "bar-64bit";
  if (kind == nullptr) return;
  add_finding({.sentence = "The bridge's base address register " + std::to_string(number) + " is wrong.",
               .evidence = {"value " + hex(value, 8) + ", size " + hex(bridge.m_size[number])},
               .candidates = {kind + (" bar=" + std::to_string(number))},
               .next = "check the bridge's configuration EEPROM",
               .places = {"bridge"}},
              result);
}

// --- query of the flash

struct query_row {
  uint32_t word;
  uint16_t low;
  uint16_t high;
};
// clang-format off
// What a chip of this kind says (S29GL-N data sheet, "Common Flash Memory Interface"; JEDEC JESD68.01).
constexpr std::array query_rows{std::to_array<query_row>({
    {0x10, 'Q', 'Q'}, {0x11, 'R', 'R'}, {0x12, 'Y', 'Y'}, {0x13, 0x02, 0x02}, {0x14, 0, 0}, {0x15, 0x40, 0x40},
    {0x16, 0, 0}, {0x17, 0, 0}, {0x18, 0, 0}, {0x19, 0, 0}, {0x1A, 0, 0},
    {0x1B, 0x18, 0x36}, {0x1C, 0x18, 0x36}, {0x1D, 0, 0}, {0x1E, 0, 0},
    // Exponents of times and of the factors for the longest ones: word, buffer, sector, chip.
    {0x1F, 1, 12}, {0x20, 1, 12}, {0x21, 1, 14}, {0x22, 0, 20}, {0x23, 1, 8}, {0x24, 1, 8}, {0x25, 1, 8}, {0x26, 0, 8},
    // Size, width, buffer, regions.
    {0x27, 26, 26}, {0x28, 1, 2}, {0x29, 0, 0}, {0x2A, 5, 5}, {0x2B, 0, 0}, {0x2C, 1, 1},
    {0x2D, 0xFF, 0xFF}, {0x2E, 1, 1}, {0x2F, 0, 0}, {0x30, 2, 2},
    {0x40, 'P', 'P'}, {0x41, 'R', 'R'}, {0x42, 'I', 'I'}, {0x43, '1', '1'}, {0x44, '0', '9'},
})};
// clang-format on

// Whether a finding with its fault is there already.
bool is_known(const finding &what, const part_result &result) {
  return std::ranges::find(result.findings, what.candidates, &finding::candidates) != result.findings.end();
}

void check_query(const settings &how, part_result *result) {
  part_result of_flash;
  device flash;
  settings at_once = how;
  at_once.wait_ms = 0;
  if (!flash.open(flash_row, at_once, &of_flash)) {
    result->not_looked_at.push_back("query of the flash: " + of_flash.reason);
    for (auto &why : of_flash.findings)
      if (!is_known(why, *result)) add_finding(std::move(why), result);
    return;
  }
  result->looked_at.emplace_back("query of the flash");
  const signal_hold::scope until_array_reads;
  flash.write(0, cmd_reset);
  flash.write(flash_query_entry, cmd_query);
  std::vector<std::string> evidence;
  std::vector<std::string> candidates;
  for (const auto &row : query_rows) {
    const uint16_t word = flash.read(2 * row.word);
    if (word >= row.low && word <= row.high) continue;
    evidence.push_back("word " + hex(row.word) + " is " + hex(word, 4));
    candidates.push_back("flash-cfi word=" + hex(row.word) + " value=" + hex(word));
  }
  flash.write(0, cmd_reset);
  result->accesses += flash.accesses();
  if (evidence.empty()) return;
  const bool one = evidence.size() == 1;
  finding what{
      .sentence = "The flash's query differs from the data sheet in " + std::to_string(evidence.size()) +
                  (one ? " word." : " words."),
      .evidence = {evidence.begin(), evidence.begin() + static_cast<ptrdiff_t>(std::min<size_t>(evidence.size(), 4))},
      .next = one ? "check which chip is fitted, then replace it" : "see the part flash: its lines come first",
      .places = {"flash"}};
  // Several words are hardly a fault of the query.
  if (one) what.candidates = std::move(candidates);
  add_finding(std::move(what), result);
}

}  // namespace

part_result probe_system(const settings &how) {
  part_result result;
  check_record_directory(&result);
  check_driver(&result);
  check_clock(&result);
  check_locks(&result);
  result.looked_at = {"/post", "SPROM driver", "clock rate", "locks"};
  pci_dev_line_t bridge{};
  part_result of_bridge;
  if (find_bridge(&bridge, &of_bridge)) {
    result.looked_at.emplace_back("base address registers");
    for (unsigned bar = 0; bar < bars.size(); ++bar)
      check_bar(bridge, bar, &result);
    check_query(how, &result);
  } else {
    result.not_looked_at = {"base address registers", "query of the flash"};
    add_finding(std::move(of_bridge.findings[0]), &result);
  }
  return result;
}

}  // namespace locate

// The sequencer with entries and a clock of this file, to which the linker hands the test table's entries, gettimeofday
// and the reading of the hardware change bits.
#include <sys/time.h>

#include "post/gige.h"
#include "post/hw_change_bits.h"
#include "post/nvram.h"
#include "post/obfl.h"
#include "post/pcie.h"
#include "post/post_tbl.h"
#include "post/seeprom.h"
#include "tests/board/post_output.h"
#include "tests/support/board.h"

int post_main(int argc, char **argv);  // post's main

namespace {

// What an entry does for a device, by "ID:DEVICE".
struct answer {
  uint32_t status = 0, result = POST_RESULT_PASS;
  const char *from = nullptr, *to = nullptr;  // renames this file of the board first
};
std::map<std::string, answer> answers;
std::vector<timeval> clock_readings;
std::vector<size_t> calls_at_readings;  // so many before each
std::vector<std::string> calls;         // of entries, and of the change bits
uint32_t *scratch_word = nullptr;
const test_board *board = nullptr;

uint32_t enter(int id, uint32_t reserved, uint32_t *result, uint32_t device, uint32_t *scratch) {
  const std::string key = std::to_string(id) + ":" + std::to_string(device);
  if (scratch_word == nullptr) scratch_word = scratch;
  EXPECT_TRUE(scratch == scratch_word && scratch != result && *scratch == calls.size() - 1) << key;
  EXPECT_TRUE(reserved == 0 && *result == POST_RESULT_NONE) << key;
  ++*scratch;
  calls.push_back(key);
  const answer &a = answers[key];
  if (a.from != nullptr) std::filesystem::rename(board->file(a.from), board->file(a.to));
  *result = a.result;
  return a.status;
}

}  // namespace

extern "C" {
int __wrap_gettimeofday(timeval *now, void *) noexcept;
decltype(post_read_hw_change_bits) __wrap_post_read_hw_change_bits;
decltype(dorvan_post_hw_change_bits_get) __wrap_dorvan_post_hw_change_bits_get;

int __wrap_gettimeofday(timeval *now, void *) noexcept {
  *now = clock_readings.at(0);
  calls_at_readings.push_back(calls.size());
  clock_readings.erase(clock_readings.begin());
  return 0;
}
void __wrap_post_read_hw_change_bits() {
  calls.emplace_back("change bits");
}
uint64_t __wrap_dorvan_post_hw_change_bits_get() {
  return calls.empty() ? 0 : 0x123456789ABCDEF0;
}

// clang-format off
#define ENTRY(name, id) \
  decltype(name) __wrap_##name; \
  uint32_t __wrap_##name(uint32_t reserved, uint32_t *result, uint32_t device, uint32_t *scratch) { \
    return enter(id, reserved, result, device, scratch); \
  }
// clang-format on
ENTRY(dorvan_brd_seeprom_test, 4)
ENTRY(dorvan_nic_lpback_test, 5)
ENTRY(dorvan_nvram_test, 8)
ENTRY(dorvan_obfl_test, 10)
ENTRY(dorvan_pcie_test, 12)
}

namespace {

// Of the rows at the start and at the end of each, and what it shows.
const std::vector<timeval> readings{{100, 999999}, {101, 0},    {5, 0},         {5, 999999}, {1000, 7},
                                    {997, 3},      {0, 900000}, {INT32_MAX, 0}, {1, 1},      {3601, 0}};
constexpr int seconds[] = {1, 0, -3, INT32_MAX, 3600};

const std::string no_file = "Could not open file post_results.txt\nERROR: Failed to open /post/result (0)\n";

// With the devices that are not recorded, and what is said of it.
// clang-format off
struct sequence { const char *name; std::map<std::string, answer> answers = {}; std::set<std::string> failed = {};
                  std::map<std::string, std::string> unrecorded = {};
                  const char *flag = nullptr; std::string warning = {}; bool is_short = false; };
const sequence sequences[] = {
    {.name = "all pass"},
    {.name = "results alone fail nothing", .answers = {{"4:0", {0, POST_RESULT_FAIL}}, {"12:6", {0, POST_RESULT_FAIL}}, {"10:0", {0, 7}}}},
    {.name = "a status fails the run beside a pass record", .answers = {{"5:3", {1}}}, .failed = {"5:3"}},
    {.name = "and without a record", .answers = {{"4:2", {0, POST_RESULT_NONE}}, {"8:0", {0x80000000, POST_RESULT_NONE}}, {"12:0", {32, POST_RESULT_FAIL}}},
     .failed = {"8:0", "12:0"}, .unrecorded = {{"4:2", ""}, {"8:0", ""}}},
    {.name = "each record tries the file again",
     .answers = {{"4:1", {.from = "post", .to = "elsewhere"}}, {"5:0", {.from = "elsewhere", .to = "post"}}}, .unrecorded = {{"4:1", no_file}, {"4:2", no_file}}},
    {.name = "only the first argument counts", .flag = "s"},
    {.name = "nothing but a dash", .flag = "-", .warning = std::string("Warning: Unsupported flag \"-\0\"! Ignoring it\n", 44)},
    {.name = "another flag", .flag = "-xs", .warning = "Warning: Unsupported flag \"-x\"! Ignoring it\n"},
    {.name = "a flag by its first letter", .flag = "-Sx", .is_short = true},
    {.name = "a small one", .flag = "-s", .is_short = true},
};
// clang-format on

// What a run prints: each row shows its seconds.
std::string expected_output(const sequence &s) {
  const expected_run run{
      .board = "P(0x123456789abcdef0) board\n", .said = s.unrecorded, .failed = s.failed, .unrecorded = {}};
  std::string text = s.warning + output_of(run, s.is_short).substr(mapping_lines().size());
  size_t row = 0;
  for (size_t at; (at = text.find("(N seconds)")) != std::string::npos; ++row)
    text.replace(at + 1, 1, std::to_string(s.is_short ? 0 : seconds[row]));
  return text;
}

// The entries that a run calls, and what it records of them.
std::pair<std::vector<std::string>, std::string> expected_calls(const sequence &s) {
  std::vector<std::string> keys{"change bits"};
  std::string records;
  for_each_device(s.is_short, [&](const post_row &, int, const std::string &key) {
    keys.push_back(key);
    if (s.unrecorded.contains(key)) return;
    records += "0:" + key + ":" + std::to_string(s.answers.contains(key) ? s.answers.at(key).result : 1) + "\n";
  });
  return {keys, records};
}

TEST(sequencer, judges_by_the_status_and_records_the_result) {
  for (const sequence &s : sequences) {
    SCOPED_TRACE(s.name);
    isolated([&s] {
      const test_board own_board;
      board = &own_board;
      answers = s.answers;
      clock_readings = s.is_short ? std::vector<timeval>(10) : readings;
      std::string words[] = {"post", s.flag != nullptr ? s.flag : "", "-s"};
      char *args[] = {words[0].data(), words[1].data(), words[2].data(), nullptr};
      const std::string out = printed([&] { EXPECT_EQ(post_main(s.flag != nullptr ? 3 : 1, args), 0); });
      EXPECT_EQ(out, expected_output(s));
      const std::vector<size_t> around_rows{1, 4, 4, 8, 8, 9, 9, 10, 10, 17};
      EXPECT_TRUE(s.is_short || calls_at_readings == around_rows);
      EXPECT_EQ(std::pair(calls, own_board.contents("post/result")), expected_calls(s));
    });
  }
}

}  // namespace

// The CPU clock record, the spin delay and the cycle conversions, on the board's /proc/cpuinfo. The linker hands usleep
// and mtrace to this file.
#include <x86intrin.h>

#include <cmath>

#include "platform/mfgd/cmn_lib/diag_util/libinit.h"
#include "platform/mfgd/cmn_lib/diag_util/ptu_velto_or.h"
#include "platform/mfgd/cmn_lib/diag_util/spin.h"
#include "platform/mfgd/cmn_lib/diag_util/timer.h"
#include "tests/support/board.h"

static std::vector<uint32_t> sleeps, khz_at_mtrace;

extern "C" {
int __wrap_usleep(useconds_t usec);
void __wrap_mtrace();

int __wrap_usleep(useconds_t usec) {
  sleeps.push_back(usec);
  return 0;
}
void __wrap_mtrace() {
  khz_at_mtrace.push_back(timer_get_cpu_khz());
}
}

namespace {

void set_cpuinfo(const test_board &board, const std::string &text) {
  std::ofstream(board.file("proc/cpuinfo"), std::ios::binary) << text;
}

TEST(clock_record, comes_from_the_first_matching_line) {
  constexpr uint32_t all = UINT32_MAX;
  const std::string pad(255, 'x');
  // The rates are single-precision values: 2493.756 is 2493.756103515625.
  // clang-format off
  const struct { std::string cpuinfo; float mhz; uint32_t hz; } cases[] = {
      {"model : 1\ncpu MHz\t\t: 2493.756\ncpu MHz\t\t: 1\n", 2493.756F,  2493756103},
      {"cpu MHz of 3 : 4 : 5\n",                            4,          4000000},
      {"CPU MHz: 1\n cpu MHz: 2\ncpu MHz:66",               66,         66000000},
      {pad + "cpu MHz: 9\ncpu MHz: 3\n",                    9,          9000000},   // a long line comes in pieces
      {"cpu MHz" + std::string(245, ' ') + ":1234\n",       12,         12000000},  // cut after the 2
      {"cpu MHz: 0.0000019\n",                              0.0000019F, 1},
      {"cpu MHz: 4294.9673\n",                              4294.9673F, 4294967285},
      {"cpu MHz: 4294.9678\n",                              4294.9678F, all},
      {"cpu MHz: inf\n",                                    HUGE_VALF,  all},
      {"cpu MHz: -1\n",                                     -1,         0xFFF0BDC0},
      {"cpu MHz: -1e30\n",                                  -1e30F,     0},
      {"cpu MHz: nan\n",                                    NAN,        0},
  };
  // clang-format on
  const test_board board;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.cpuinfo);
    set_cpuinfo(board, c.cpuinfo);
    const size_t open = open_descriptors();
    _init_ptu();
    EXPECT_EQ(open_descriptors(), open);
    ptu_parms_t copy{};
    get_ptu_parms(&copy);
    EXPECT_EQ(copy.cpu_hz, c.hz);
    EXPECT_THAT(copy.cpu_mhz, testing::NanSensitiveDoubleEq(c.mhz));
    EXPECT_THAT(copy.usec_per_cycle, testing::NanSensitiveDoubleEq(1.0 / c.mhz));
  }
  set_cpuinfo(board, "cpu MHz: 1000.0007\n");
  libinit();
  EXPECT_THAT(khz_at_mtrace, ElementsAre(1000000U)) << "tracing starts last";
}

TEST(clock_record, a_missing_rate_ends_the_program) {
  const char no_line[] = "Unable to find 'cpu MHz' in /proc/cpuinfo\n";
  // clang-format off
  const struct { const char *cpuinfo, *printed, *text; } cases[] = {
      {"",                            no_line, "0"},
      {"cpu mhz: 1\ncpu MH",          no_line, "0"},
      {"cpu MHz 1000\n: 1\n",         "",      "mhz != 0.0"},
      {"cpu MHz : fast\n",            "",      "mhz != 0.0"},
      {"cpu MHz: 0\ncpu MHz: 1000\n", "",      "mhz != 0.0"},
  };
  // clang-format on
  const test_board board;
  for (const auto &c : cases) {
    set_cpuinfo(board, c.cpuinfo);
    EXPECT_EQ(run_child(_init_ptu).out, c.printed);
    expect_assertion(_init_ptu, "diag_util/ptu_velto_or.cpp", "_init_ptu", c.text);
  }
  expect_assertion([] { get_ptu_parms(nullptr); }, "diag_util/spin.cpp", "get_ptu_parms", "ptu");
}

TEST(cycles, differences_are_divided_by_the_rate) {
  constexpr uint64_t all = UINT64_MAX;
  // clang-format off
  const struct { uint32_t khz; uint64_t later, earlier, msec, usec; } cases[] = {
      {0,          5,            5,   all,              all},
      {1500,       1499,         0,   0,                999},
      {1000,       999,          all, 1,                1000},
      {1000,       0,            1,   all / 1000,       (all - 999) / 1000},
      {7,          all / 1000,   0,   2635249153387078, 2635249153387078714},
      {7,      all / 1000 + 1,   0,   2635249153387078, 54},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.khz << " " << c.later << " " << c.earlier);
    cpu_khz = c.khz;
    EXPECT_EQ(timer_get_cpu_khz(), c.khz);
    EXPECT_EQ(timer_diff_cycle_in_msec(c.later, c.earlier), c.msec);
    EXPECT_EQ(timer_diff_cycle_in_usec(c.later, c.earlier), c.usec);
  }
  const uint64_t before = __rdtsc(), cycles = timer_get_cycles();
  EXPECT_TRUE(before <= cycles && cycles <= __rdtsc());
}

uint64_t cycles_of_spin(uint32_t usec) {
  const uint64_t from = __rdtsc();
  diag_spin_usec(usec);
  return __rdtsc() - from;
}

TEST(spin, holds_the_processor_up_to_ten_milliseconds_and_sleeps_beyond) {
  const test_board board;  // names the counter's true rate
  _init_ptu();
  ptu_parms.cpu_hz = 0;  // has no part in it
  for (uint32_t usec : {0U, 1U, 100U, 9999U, 10000U})
    EXPECT_GE(static_cast<double>(cycles_of_spin(usec)), std::floor(usec * ptu_parms.cpu_mhz)) << usec;
  EXPECT_THAT(sleeps, IsEmpty());
  const double mhz = std::exchange(ptu_parms.cpu_mhz, 200000);
  EXPECT_LT(cycles_of_spin(10001), 1000000000U);
  diag_spin_usec(UINT32_MAX);
  EXPECT_THAT(sleeps, ElementsAre(10001U, UINT32_MAX));

  // The counter's low half wraps in the middle of this one.
  ptu_parms.cpu_mhz = mhz;
  const auto wait = static_cast<uint32_t>(5000 * mhz);
  uint64_t from;
  do {
    from = __rdtsc();
  } while (static_cast<uint32_t>(from) < UINT32_MAX - wait / 2);
  EXPECT_GE(cycles_of_spin(5000), wait);
  EXPECT_NE(__rdtsc() >> 32, from >> 32) << "no wrap";

  // No target, or one whose sign is negative in 32 bits: no wait.
  for (double absurd : {0.0, -1000.0, -1e300, 1e300, std::nan(""), HUGE_VAL, 300000.0}) {
    ptu_parms.cpu_mhz = absurd;
    EXPECT_LT(cycles_of_spin(10000), uint64_t{1} << 31) << absurd;
  }
}

}  // namespace

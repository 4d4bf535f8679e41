// CPU clock record, spin delay and cycle conversions. The linker hands fopen64, usleep and mtrace to this file, so that
// it says what stands in /proc/cpuinfo and sees every sleep.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <math.h>
#include <string.h>
#include <x86intrin.h>

#include <string>
#include <vector>

#include "platform/mfgd/cmn_lib/diag_util/libinit.h"
#include "platform/mfgd/cmn_lib/diag_util/ptu_velto_or.h"
#include "platform/mfgd/cmn_lib/diag_util/spin.h"
#include "platform/mfgd/cmn_lib/diag_util/timer.h"

namespace {

const std::string *cpuinfo;  // null: cannot be opened
std::vector<uint32_t> sleeps;
std::vector<uint32_t> khz_at_mtrace;

}  // namespace

extern "C" {

FILE *__real_fopen64(const char *path, const char *mode);
FILE *__wrap_fopen64(const char *path, const char *mode);
int __wrap_usleep(useconds_t usec);
void __wrap_mtrace();

FILE *__wrap_fopen64(const char *path, const char *mode) {
  if (strcmp(path, "/proc/cpuinfo") != 0) return __real_fopen64(path, mode);
  EXPECT_STREQ(mode, "r");
  if (cpuinfo == nullptr) return nullptr;
  FILE *const file = tmpfile();
  (void)fwrite(cpuinfo->data(), 1, cpuinfo->size(), file);
  rewind(file);
  return file;
}

int __wrap_usleep(useconds_t usec) {
  sleeps.push_back(usec);
  return 0;
}

void __wrap_mtrace() {
  khz_at_mtrace.push_back(timer_get_cpu_khz());
}
}

namespace {

class spin_test : public testing::Test {
 protected:
  void SetUp() override {
    ptu_parms = {};
    cpu_khz = 0;
    sleeps.clear();
  }

  static void read(const std::string &text) {
    cpuinfo = &text;
    _init_ptu();
    cpuinfo = nullptr;
  }

  // Makes the record hold the rate at which the counter of this machine really runs.
  static void measure_rate() {
    const auto usec_now = [] {
      timespec t{};
      clock_gettime(CLOCK_MONOTONIC, &t);
      return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
    };
    const double from = usec_now();
    const uint64_t cycles = __rdtsc();
    double to = from;
    while (to - from < 50000)
      to = usec_now();
    ptu_parms.cpu_mhz = static_cast<double>(__rdtsc() - cycles) / (to - from);
  }
};

TEST_F(spin_test, the_rate_is_that_of_the_first_matching_line) {
  struct rate_t {
    const char *name;
    std::string cpuinfo;
    double mhz;
    uint32_t hz;
  };
  const std::string pad(255, 'x');
  // clang-format off
  const rate_t rates[] = {
      // The single-precision values: 2493.756 is 2493.756103515625, 0.1 is 0.100000001490116...
      {"usual line",             "model : 1\ncpu MHz\t\t: 2493.756\n",   static_cast<double>(2493.756F), 2493756103},
      {"first of two",           "cpu MHz\t: 1000\ncpu MHz\t: 2000\n",   1000,    1000000000},
      {"key is a prefix",        "cpu MHz of some kind: 7 GHz\n",        7,       7000000},
      {"first colon",            "cpu MHz 3 : 4 : 5\n",                  4,       4000000},
      {"no newline",             "cpu MHz:66",                           66,      66000000},
      {"key in other case",      "CPU MHz: 1\ncpu mhz: 2\ncpu MHz: 3\n", 3,       3000000},
      {"key not at the start",   " cpu MHz: 1\ncpu MHz: 3\n",            3,       3000000},
      {"behind a long line",     pad + pad + "x\ncpu MHz: 3\n",          3,       3000000},
      {"piece of a long line",   pad + "cpu MHz: 9\ncpu MHz: 3\n",       9,       9000000},
      {"rate cut by the piece",  "cpu MHz" + std::string(245, ' ') + ":1234\n", 12, 12000000},
      {"truncated",              "cpu MHz: 0.0000019\n",                 static_cast<double>(0.0000019F), 1},
      {"single precision",       "cpu MHz: 0.1\n",                       static_cast<double>(0.1F), 100000},
      {"largest that fits",      "cpu MHz: 4294.9673\n",                 static_cast<double>(4294.9673F), 4294967285},
      {"smallest that does not", "cpu MHz: 4294.9678\n",                 static_cast<double>(4294.9678F), UINT32_MAX},
      {"far too high",           "cpu MHz: 1e30\n",                      static_cast<double>(1e30F), UINT32_MAX},
      {"infinite",               "cpu MHz: inf\n",                       HUGE_VAL, UINT32_MAX},
      {"negative",               "cpu MHz: -1\n",                        -1,      0xFFF0BDC0},
      {"far too low",            "cpu MHz: -1e30\n",                     static_cast<double>(-1e30F), 0},
  };
  // clang-format on
  for (const auto &c : rates) {
    SCOPED_TRACE(c.name);
    ptu_parms = {};
    read(c.cpuinfo);
    EXPECT_EQ(ptu_parms.cpu_mhz, c.mhz);
    EXPECT_EQ(ptu_parms.cpu_hz, c.hz);
    EXPECT_EQ(ptu_parms.usec_per_cycle, 1.0 / c.mhz);
  }
  read("cpu MHz: nan\n");
  EXPECT_TRUE(isnan(ptu_parms.cpu_mhz));
  EXPECT_EQ(ptu_parms.cpu_hz, 0U);
}

TEST_F(spin_test, the_record_is_copied_whole) {
  read("cpu MHz: 250\n");
  ptu_parms_t copy{};
  get_ptu_parms(&copy);
  EXPECT_EQ(copy.cpu_hz, 250000000U);
  EXPECT_EQ(copy.cpu_mhz, 250.0);
  EXPECT_EQ(copy.usec_per_cycle, 0.004);
}

TEST_F(spin_test, start_up_sets_both_rates_before_tracing) {
  const std::string text = "cpu MHz\t\t: 2493.756\n";
  cpuinfo = &text;
  khz_at_mtrace.clear();
  libinit();
  EXPECT_EQ(ptu_parms.cpu_hz, 2493756103U);
  EXPECT_THAT(khz_at_mtrace, testing::ElementsAre(2493756U));
}

// Standard output goes to standard error, so that the order of both is seen.
TEST_F(spin_test, a_missing_rate_ends_the_program) {
  struct death_t {
    const char *name;
    const char *cpuinfo;
    const char *printed;
    const char *condition;
  };
  const char zero[] = "mhz != 0\\.0";
  const char no_line[] = "Unable to find 'cpu MHz' in /proc/cpuinfo\n";
  // clang-format off
  const death_t deaths[] = {
      {"no file",      nullptr,           "Unable to open /proc/cpuinfo for reading\\.\\.\\.\\.\n", "0"},
      {"empty",        "",                no_line, "0"},
      {"no such line", "cpu mhz: 1\nx\n", no_line, "0"},
      {"key cut off",  "cpu MH",          no_line, "0"},
      {"no colon",     "cpu MHz 1000\n",  "",      zero},
      {"no number",    "cpu MHz : fast\n","",      zero},
      {"nothing",      "cpu MHz:",        "",      zero},
      {"zero",         "cpu MHz: 0.000\n","",      zero},
      {"zero counts",  "cpu MHz: 0\ncpu MHz: 1000\n", "", zero},
  };
  // clang-format on
  for (const auto &c : deaths) {
    SCOPED_TRACE(c.name);
    const std::string text = c.cpuinfo != nullptr ? c.cpuinfo : "";
    const auto start = [&] {
      (void)dup2(STDERR_FILENO, STDOUT_FILENO);
      cpuinfo = c.cpuinfo != nullptr ? &text : nullptr;
      _init_ptu();
    };
    EXPECT_EXIT(start(), testing::KilledBySignal(SIGABRT),
                std::string{"^"} + c.printed +
                    "test_spin: platform/mfgd/cmn_lib/diag_util/ptu_velto_or\\.cpp:[0-9]+: _init_ptu: Assertion `" +
                    c.condition + "' failed\\.\n$");
  }
  EXPECT_EXIT(get_ptu_parms(nullptr), testing::KilledBySignal(SIGABRT),
              "^test_spin: platform/mfgd/cmn_lib/diag_util/spin\\.cpp:[0-9]+: get_ptu_parms: Assertion `ptu' failed");
}

TEST_F(spin_test, differences_are_divided_by_the_rate) {
  struct difference_t {
    uint32_t khz;
    uint64_t later, earlier;
    uint64_t msec, usec;
  };
  constexpr uint64_t all = UINT64_MAX;
  // clang-format off
  const difference_t differences[] = {
      // kHz      later               earlier  ms                    µs
      {0,         5,                  5,       all,                  all},
      {0,         9,                  5,       all,                  all},
      {1000,      77,                 77,      0,                    0},
      {1000,      1999,               0,       1,                    1999},
      {1500,      1499,               0,       0,                    999},
      {2493756,   2493756,            0,       1,                    1000},
      {1000,      999,                all,     1,                    1000},
      {1000,      0,                  1,       all / 1000,           (all - 999) / 1000},
      {7,         all / 1000,         0,       2635249153387078,     2635249153387078714},
      {7,         all / 1000 + 1,     0,       2635249153387078,     54},
      {UINT32_MAX, all,               0,       4294967297,           4294967296},
  };
  // clang-format on
  for (const auto &c : differences) {
    SCOPED_TRACE(testing::Message() << c.khz << " " << c.later << " " << c.earlier);
    cpu_khz = c.khz;
    EXPECT_EQ(timer_get_cpu_khz(), c.khz);
    EXPECT_EQ(timer_diff_cycle_in_msec(c.later, c.earlier), c.msec);
    EXPECT_EQ(timer_diff_cycle_in_usec(c.later, c.earlier), c.usec);
  }
}

TEST_F(spin_test, cycles_are_those_of_the_counter) {
  const uint64_t before = __rdtsc();
  const uint64_t cycles = timer_get_cycles();
  EXPECT_GE(cycles, before);
  EXPECT_LE(cycles, __rdtsc());
}

TEST_F(spin_test, up_to_ten_milliseconds_spin_and_more_sleep) {
  measure_rate();
  for (uint32_t usec : {0U, 1U, 100U, 9999U, 10000U}) {
    const uint64_t from = __rdtsc();
    diag_spin_usec(usec);
    EXPECT_GE(static_cast<double>(__rdtsc() - from), usec * ptu_parms.cpu_mhz - 1) << usec;
  }
  EXPECT_THAT(sleeps, testing::IsEmpty());
  const uint64_t from = __rdtsc();
  diag_spin_usec(10001);
  diag_spin_usec(UINT32_MAX);
  EXPECT_LT(static_cast<double>(__rdtsc() - from), 10000 * ptu_parms.cpu_mhz);
  EXPECT_THAT(sleeps, testing::ElementsAre(10001U, UINT32_MAX));
}

TEST_F(spin_test, a_wrap_of_the_counters_low_half_does_not_end_the_wait) {
  measure_rate();
  const auto wait = static_cast<uint32_t>(5000 * ptu_parms.cpu_mhz);
  uint64_t from;
  do {
    from = __rdtsc();
  } while (static_cast<uint32_t>(from) < UINT32_MAX - wait / 2);
  diag_spin_usec(5000);
  const uint64_t to = __rdtsc();
  EXPECT_GE(to - from, wait);
  EXPECT_NE(to >> 32, from >> 32) << "no wrap";
}

// Rates that no target can be computed from, and targets whose sign is negative in 32 bits, wait for nothing.
TEST_F(spin_test, absurd_rates_do_not_wait) {
  for (double mhz : {0.0, -1000.0, -1e300, 1e300, static_cast<double>(NAN), HUGE_VAL, 300000.0}) {
    SCOPED_TRACE(mhz);
    ptu_parms.cpu_mhz = mhz;
    const uint64_t from = __rdtsc();
    diag_spin_usec(10000);
    EXPECT_LT(__rdtsc() - from, uint64_t{1} << 31);
  }
}

}  // namespace

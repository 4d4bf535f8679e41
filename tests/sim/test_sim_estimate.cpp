// How long a run takes, as board-sim tells it in advance.
#include "sim/launcher/estimate.h"
#include "tests/support/run.h"

namespace {

sim::options options_of(const std::vector<std::string> &args) {
  std::string error;
  return sim::options_parse(args, &error).value();
}

TEST(sim_estimate, adds_up_the_flash_and_the_accesses) {
  const sim::run_counts counts{10, 1000, 100, 50};
  const sim::machine_costs costs{.trap = 0.001, .call = 0.0001};
  const struct {
    const char *what;
    std::vector<std::string> options;
    double usual;
    double longest;
  } cases[] = {
      // clang-format off
      {"each erase is waited for twice", {"--real-times"},             20.48 + 0.128 + 0.028, 163.84 + 4.096 + 0.028},
      {"shorter times", {},                                            0.04 + 0.004 + 0.028,  0.16 + 0.032 + 0.028},
      {"a log",         {"--trace=log", "--busy=time"},                0.02 + 0.004 + 0.147,  0.16 + 0.032 + 0.147},
      {"signals",       {"--no-patch"},                                0.04 + 0.004 + 0.125,  0.16 + 0.032 + 0.125},
      {"short waits",   {"--waits=short"},                             0.028,                 0.028},
      {"sleeps",        {"--waits=short", "--real-times"},             20.48 + 0.028,         163.84 + 0.028},
      // clang-format on
  };
  for (const auto &c : cases) {
    const auto times = sim::estimate(options_of(c.options), counts, costs);
    EXPECT_NEAR(times.usual, c.usual, 1e-6) << c.what;
    EXPECT_NEAR(times.longest, c.longest, 1e-6) << c.what;
  }
}

TEST(sim_estimate, never_says_that_nothing_is_left) {
  const sim::run_times times{30, 60};
  const std::pair<double, const char *> cases[] = {
      {0, "about 30 s left"},
      {10.2, "about 20 s left"},
      {29.99, "about 1 s left"},
      {30, "longer than estimated: 30 s so far"},
      {95, "longer than estimated: 95 s so far"},
  };
  for (const auto &[elapsed, text] : cases)
    EXPECT_EQ(sim::told_during(times, elapsed), text);
}

TEST(sim_estimate, counts_what_a_run_does) {
  const temp_dir dir;
  const auto report = (dir.path() / "report").string();
  // One look more than usual shows each operation.
  const auto run =
      run_program("board-sim", {"--estimate", "--fault", "flash-slow program=1 erase=2", "--fault-report", report});
  EXPECT_EQ(std::stoul(read_file(report)), sim::full_run.programs);
  EXPECT_THAT(run.err, testing::HasSubstr(": 40 erases, 81965 page programs\n"));
}

// Whatever a sound board takes, and two minutes for the controllers' own tests.
TEST(sim_estimate, fits_into_the_time_out_of_the_boot_unit) {
  const auto unit = read_file(POST_SOURCE_DIR "/post/boot/post-boot.service");
  std::smatch found;
  ASSERT_TRUE(std::regex_search(unit, found, std::regex("\nTimeoutStartSec=([0-9]+)\n")));
  const auto times = sim::estimate(options_of({"--real-times"}), sim::full_run, {2e-6, 2e-7});
  EXPECT_GE(std::stod(found[1]), times.longest + 120);
  EXPECT_LE(std::stod(found[1]), times.longest + 300);
}

}  // namespace

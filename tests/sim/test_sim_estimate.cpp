// How long a run takes, as board-sim tells it in advance.
#include "sim/launcher/estimate.h"
#include "tests/support/run.h"

namespace {

TEST(sim_estimate, never_says_that_nothing_is_left) {
  const sim::run_times times{30, 60};
  const std::pair<double, const char *> cases[] = {
      {0, "about 30 s left"},
      {10.2, "about 20 s left"},
      {29.99, "about 1 s left"},
      {30, "longer than estimated: 30 s so far"},
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
  EXPECT_THAT(run.err, HasSubstr(": 40 erases, 81965 page programs\n"));
}

// Whatever a sound board takes, and two minutes for the controllers' own tests.
TEST(sim_estimate, fits_into_the_time_out_of_the_boot_unit) {
  const auto unit = read_file(POST_SOURCE_DIR "/post/boot/post-boot.service");
  std::smatch found;
  ASSERT_TRUE(std::regex_search(unit, found, std::regex("\nTimeoutStartSec=([0-9]+)\n")));
  std::string error;
  const auto options = sim::options_parse(std::vector<std::string>{"--real-times"}, &error).value();
  const auto times = sim::estimate(options, sim::full_run, {2e-6, 2e-7});
  EXPECT_NEAR(times.usual, 40 * 2 * 1.024 + 81965 * 128e-6, 10) << "each erase is waited for twice";
  EXPECT_GE(std::stod(found[1]), times.longest + 120);
  EXPECT_LE(std::stod(found[1]), times.longest + 300);
}

}  // namespace

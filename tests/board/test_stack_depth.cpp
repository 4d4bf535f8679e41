// Trapped accesses wherever the stack stands: the kernel puts the processor's state close to the stack's end, which
// environment and arguments move.
#include <gtest/gtest.h>
#include <sys/personality.h>

#include <cstdlib>

#include "tests/support/host.h"
#include "tests/support/run.h"

namespace {

TEST(stack_depth, makes_no_difference) {
  // All accesses to a faulty flash trap. Its test ends at the first word, after a copy of the sector. This card tests
  // one NVRAM only.
  const std::vector<std::string> args{"--card", "11061", "--fault", "flash-data-stuck line=0 level=0"};
  const auto run_with = [&](size_t padding) {
    const temp_dir state;
    (void)setenv("PADDING", std::string(padding, 'x').c_str(), 1);
    auto run = run_board(state.path(), args);
    run.out = steady(run.out);
    return run;
  };
  isolated([&] {
    // Where the kernel refuses, the depths are as they fall.
    (void)personality(ADDR_NO_RANDOMIZE);
    const auto expected = run_with(0);
    EXPECT_EQ(expected.status, 0);
    EXPECT_NE(expected.out.find("POST is completed"), std::string::npos) << expected.out << expected.err;
    for (size_t padding = 1000; padding <= 12 * 1024; padding += 1016) {
      SCOPED_TRACE(padding);
      const auto run = run_with(padding);
      EXPECT_EQ(run.status, 0);
      EXPECT_EQ(run.out, expected.out);
      EXPECT_EQ(run.records, expected.records);
      EXPECT_EQ(run.err, expected.err);
    }
  });
}

}  // namespace

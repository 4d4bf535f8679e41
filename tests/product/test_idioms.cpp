// The output idioms: checked calls, diagnostic assertions, standard assertions.
#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "tests/support/host.h"

// Exported, so that the call stack names it.
extern "C" [[gnu::noinline]] uint32_t demo(uint32_t rc, int *calls);

uint32_t demo(uint32_t rc, int *calls) {
  DIAG_ASSERT(rc != 1);
  DIAG_ASSERT_AS(rc != 2, "rc (2/1)");
  return DIAG_CALL("next( rc)", ++*calls == 1 ? rc : 0);
}

namespace {

TEST(diag_call, traces_calls_once_and_reports_failures_through_both_hooks) {
  using status_text = std::pair<uint32_t, std::string>;
  for (const auto &[rc, text] : {status_text{0, ""}, status_text{410, "410 (HW_ERR_TIMEOUT)"}, {293, "293 ()"}}) {
    int calls = 0;
    std::vector<hook_line> expected = {{DIAG_LVL_DEBUG, "demo(): next( rc)\n"}};
    const std::string report = "## Error : Failed next( rc)\n           with rc " + text + "\n";
    if (rc != 0) expected.insert(expected.end(), {{0, report}, {DIAG_LVL_ERR, report}});
    EXPECT_EQ(hooks_of([&, status = rc] { EXPECT_EQ(demo(status, &calls), status); }, true), expected);
  }
}

// More frames than a report holds.
void deep(uint32_t rc, int frames) {
  if (frames > 0) return deep(rc, frames - 1);
  (void)demo(rc, nullptr);
}

TEST(diag_assert, prints_place_condition_and_stack_twice_and_aborts) {
  for (const auto &[rc, condition] : {std::pair{1U, "rc != 1"}, {2U, "rc \\(2/1\\)"}}) {
    const outcome child = run_child([status = rc] { deep(status, 30); });
    EXPECT_EQ(child.status, 128 + SIGABRT);
    // Under the sanitizer, its own backtrace() is a frame, too.
    const std::string out = std::regex_replace(child.out, std::regex("(<6>)?## BT: [^\n]*libasan[^\n]*\n"), "");
    const std::regex report(std::string("(## Assert:demo\\(\\):[0-9]+\n)<6>\\1(         :\"") + condition +
                            "\" is false\n)<6>\\2(## BT: [^\n]*\\(demo[^\n]*\n)<6>\\3((## BT: [^\n]*\n)<6>\\5){" +
                            (out == child.out ? "19}" : "18}"));
    EXPECT_TRUE(std::regex_match(out, report)) << out;
  }
}

TEST(standard_assert, loses_nothing_that_was_printed_before) {
  const auto fails = [] {
    (void)fputs("no line end", stdout);
    assert(2 + 2 == 5);
  };
  EXPECT_EQ(expect_assertion(fails, "tests/product/test_idioms.cpp", "operator()", "2 + 2 == 5").out, "no line end");
}

}  // namespace

// The output idioms: checked calls, diagnostic assertions, standard assertions.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <string>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "tests/unit/host.h"

extern "C" {
[[gnu::noinline]] uint32_t demo_inner(uint32_t rc, int *calls);
[[gnu::noinline]] uint32_t demo_outer(uint32_t rc, int *calls);
[[gnu::noinline]] void demo_checks(uint32_t rc);

uint32_t demo_inner(uint32_t rc, int *calls) {
  ++*calls;
  return rc;
}

uint32_t demo_outer(uint32_t rc, int *calls) {
  return DIAG_CALL("demo_inner( rc)", demo_inner(rc, calls));
}

void demo_checks(uint32_t rc) {
  DIAG_ASSERT(rc != 1);
  DIAG_ASSERT_AS(rc < 2, "rc <= (2/1)");
}
}

namespace {

constexpr char report_410[] = "## Error : Failed demo_inner( rc)\n           with rc 410 (HW_ERR_TIMEOUT)\n";
constexpr char report_293[] = "## Error : Failed demo_inner( rc)\n           with rc 293 ()\n";

TEST(diag_call, traces_calls_once_and_reports_failures_through_both_hooks) {
  struct {
    uint32_t rc;
    std::vector<hook_line> after_trace;
  } const cases[] = {
      {HW_SUCCESS, {}},
      {HW_ERR_TIMEOUT, {{0, report_410}, {DIAG_LVL_ERR, report_410}}},
      {293, {{0, report_293}, {DIAG_LVL_ERR, report_293}}},
  };
  for (const auto &c : cases) {
    int calls = 0;
    uint32_t rc = ~c.rc;
    std::vector<hook_line> expected = {{DIAG_LVL_DEBUG, "demo_outer(): demo_inner( rc)\n"}};
    expected.insert(expected.end(), c.after_trace.begin(), c.after_trace.end());
    EXPECT_EQ(hooks_of([&] { rc = demo_outer(c.rc, &calls); }, true), expected);
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(calls, 1);
  }
}

TEST(diag_assert, prints_place_condition_and_stack_twice_and_aborts) {
  struct {
    uint32_t rc;
    const char *condition;
  } const cases[] = {{1, "rc != 1"}, {2, "rc <= (2/1)"}};
  for (const auto &c : cases) {
    const outcome child = run_child([&] {
      (void)fputs("before ", stdout);
      demo_checks(c.rc);
    });
    EXPECT_EQ(child.signal, SIGABRT);
    std::vector<std::string> lines;
    size_t at = 0;
    for (size_t end; (end = child.out.find('\n', at)) != std::string::npos; at = end + 1)
      lines.push_back(child.out.substr(at, end - at));
    // Under the sanitizer, its own backtrace() is a frame, too.
    std::erase_if(lines, [](const std::string &line) { return line.find("libasan") != std::string::npos; });
    ASSERT_GE(lines.size(), 6U) << child.out;
    EXPECT_THAT(lines[0], testing::MatchesRegex("before ## Assert:demo_checks\\(\\):[0-9]+"));
    EXPECT_EQ("before " + lines[1], lines[0]);
    EXPECT_EQ(lines[2], "         :\"" + std::string(c.condition) + "\" is false");
    EXPECT_EQ(lines[3], lines[2]);
    // The failing operation is the innermost frame.
    EXPECT_THAT(lines[4], testing::HasSubstr("demo_checks"));
    const size_t frames = (lines.size() - 4) / 2;
    EXPECT_LE(frames, 20U);
    for (size_t i = 4; i < lines.size(); ++i) {
      EXPECT_EQ(lines[i].rfind("## BT: ", 0), 0U) << lines[i];
      EXPECT_EQ(lines[i], lines[i ^ 1]);
    }
  }
}

TEST(diag_assert, says_nothing_where_the_condition_holds) {
  EXPECT_EQ(hooks_of([] { demo_checks(0); }, true), std::vector<hook_line>{});
}

TEST(standard_assert, loses_nothing_that_was_printed_before) {
  const outcome child = run_child([] {
    (void)fputs("no line end", stdout);
    assert(2 + 2 == 5);
  });
  EXPECT_EQ(child.signal, SIGABRT);
  EXPECT_EQ(child.out, "no line end");
  EXPECT_THAT(child.err, testing::HasSubstr("Assertion `2 + 2 == 5' failed.\n"));
}

}  // namespace

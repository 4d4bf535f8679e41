// board.h: the simulated board in the test's own process, and what the code under test prints.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "sim/board.h"
#include "tests/support/run.h"

// A running board on a state directory of its own; `faults` as on the command line.
class test_board {
 public:
  explicit test_board(std::initializer_list<const char *> faults = {}, uint32_t card = 11062) {
    options_.card = card;
    options_.state = dir_.path().string();
    for (const char *text : faults) {
      std::string error;
      const auto parsed = sim::fault_parse(text, &error);
      if (!parsed) {
        (void)fprintf(stderr, "%s: %s\n", text, error.c_str());
        abort();
      }
      options_.faults.push_back(*parsed);
    }
    if (!sim::board_start(options_)) abort();
  }
  // `args` as on board-sim's command line; the bus log is the file `trace` of the state directory.
  test_board(const std::vector<std::string> &args, const char *trace) {
    std::string error;
    const auto parsed = sim::options_parse(args, &error);
    if (!parsed) {
      (void)fprintf(stderr, "%s\n", error.c_str());
      abort();
    }
    options_ = *parsed;
    options_.state = dir_.path().string();
    options_.trace = file(trace).string();
    if (!sim::board_start(options_)) abort();
  }
  test_board(const test_board &) = delete;
  test_board &operator=(const test_board &) = delete;
  ~test_board() { sim::board_stop(); }

  [[nodiscard]] std::filesystem::path file(const char *name) const { return dir_.path() / name; }

 private:
  temp_dir dir_;
  sim::options options_;
};

// What `code` writes to standard output, through the descriptor.
template <typename Code>
std::string printed(Code &&code) {
  (void)fflush(stdout);
  const std::unique_ptr<FILE, int (*)(FILE *)> file(tmpfile(), fclose);
  const int saved = dup(STDOUT_FILENO);
  (void)dup2(fileno(file.get()), STDOUT_FILENO);
  std::forward<Code>(code)();
  (void)fflush(stdout);
  (void)dup2(saved, STDOUT_FILENO);
  (void)close(saved);
  std::string text;
  rewind(file.get());
  for (int c; (c = fgetc(file.get())) != EOF;)
    text.push_back(static_cast<char>(c));
  return text;
}

// Runs `code` with its expectations in a process of its own: what it leaves in static state is gone afterwards.
template <typename Code>
void isolated(Code &&code) {
  (void)fflush(stdout);
  const auto parts = [] { return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count(); };
  const int before = parts();
  const pid_t child = fork();
  if (child == 0) {
    std::forward<Code>(code)();
    (void)fflush(stdout);
    _exit(parts() != before ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

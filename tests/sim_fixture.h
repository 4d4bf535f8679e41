// sim_fixture.h: a simulated board for the life of a test.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <sstream>
#include <string>
#include <vector>

#include "sim/board.h"
#include "sim/files.h"
#include "sim/options.h"

// Starts from the healthy default board; the arguments, options of board-sim, say what differs. Ends with its state
// directory.
class sim_board {
 public:
  explicit sim_board(std::vector<std::string> args = {}) {
    char path[] = "/tmp/board-test-XXXXXX";
    m_state = mkdtemp(path);
    start(std::move(args));
  }
  sim_board(const sim_board &) = delete;
  sim_board &operator=(const sim_board &) = delete;
  ~sim_board() {
    sim::board_stop();
    (void)sim::remove_tree(m_state);
  }

  // Power-on again, perhaps with other options, on the same state.
  void start(std::vector<std::string> args = {}) {
    args.push_back("--state=" + m_state);
    args.push_back("--trace=" + m_state + "/trace");
    std::string error;
    const auto opts = sim::options_parse(args, &error);
    EXPECT_TRUE(opts) << error;
    m_started = opts && sim::board_start(*opts);
    EXPECT_TRUE(m_started);
  }

  [[nodiscard]] bool started() const { return m_started; }
  [[nodiscard]] const std::string &state() const { return m_state; }
  // A file of the state directory, "" if it is not there.
  [[nodiscard]] std::string read(const std::string &name) const {
    return sim::read_file(m_state + "/" + name).value_or("");
  }

  // The bus log's lines without their time, from the last call on.
  std::vector<std::string> take_log() {
    std::istringstream lines(read("trace"));
    std::vector<std::string> log;
    std::string line;
    size_t number = 0;
    while (std::getline(lines, line))
      if (number++ >= m_taken) log.push_back(line.substr(line.find(' ') + 1));
    m_taken = number;
    return log;
  }

 private:
  std::string m_state;
  bool m_started = false;
  size_t m_taken = 0;
};

// runner.h: runs of the program on the simulated board, each on a board of its own, several at a time.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "lab/base/process.h"
#include "lab/campaign/contents.h"
#include "lab/campaign/matrix.h"
#include "lab/campaign/space.h"

namespace lab {

struct runner_options {
  std::string board_sim;  // path of the program
  std::string work;       // directory that everything is written to; it exists
  std::string program;    // instead of post, "" for post
  run_limits limits;
  unsigned jobs = 1;
  bool keep = false;    // leave each run's directory with its output
  bool locate = false;  // run post-locate, too, on a board of its own with the same fault
};

// The program that measures, in the directory of the board.
[[nodiscard]] std::string post_locate_beside(const std::string &board_sim);

class runner {
 public:
  runner(runner_options options, int stop_fd) : m_options(std::move(options)), m_stop_fd(stop_fd) {}

  // Asks the board for its faults and makes the contents before every run. Returns "" or what went wrong.
  [[nodiscard]] std::string prepare();
  // What a space is made from.
  [[nodiscard]] const space_source &source() const { return m_source; }
  // Why what it was made from is not whole: a board that did not run, or the end that was asked for meanwhile. "" if
  // it is.
  [[nodiscard]] std::string source_error() const;
  // The list of faults as the board prints it.
  [[nodiscard]] const std::string &fault_list_text() const { return m_fault_list_text; }

  // Runs what `wanted` names, by index. `done` gets each result, in no order; no two calls overlap.
  // Returns "" when all are done or the stop descriptor could be read, else what went wrong.
  using sink = std::function<void(size_t index, run_result result)>;
  [[nodiscard]] std::string run(const std::vector<run_item> &runs, const std::vector<size_t> &wanted, const sink &done);

 private:
  // One run; nothing if it was stopped. The error is in *error.
  [[nodiscard]] std::optional<run_result> run_one(const run_item &what, const std::string &name, unsigned slot,
                                                  std::string *error) const;
  // What post-locate beside the board makes of the same board; nothing if it was stopped or the board refused.
  [[nodiscard]] std::optional<location> locate(const run_item &what, const std::string &home, unsigned slot,
                                               std::string *error) const;
  [[nodiscard]] bool may_reach_flash(const run_item &what) const;
  [[nodiscard]] std::vector<std::string> command(const run_item &what, const std::string &directory) const;
  [[nodiscard]] std::vector<occasion_range> count_occasions(const std::vector<std::string> &faults);
  [[nodiscard]] std::string prepare_board(const board_setting &board);
  [[nodiscard]] std::string directory(const std::string &name) const { return m_options.work + "/" + name; }

  runner_options m_options;
  int m_stop_fd;
  contents_template m_contents;
  space_source m_source;
  std::string m_source_error;
  std::string m_fault_list_text;
};

}  // namespace lab

// campaign.h: one campaign: its runs planned, done, gone on with after an interruption, and put into a matrix.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "lab/campaign/journal.h"
#include "lab/campaign/matrix.h"
#include "lab/campaign/runner.h"
#include "lab/campaign/work_directory.h"

namespace lab {

struct campaign_request {
  // Which faults: healthy boards if any are asked for, else own patterns, else a built-in set.
  uint64_t healthy = 0;
  std::vector<std::string> faults;
  std::string from;  // a file of patterns
  std::string set = "standard";
  uint64_t samples = 100;
  uint64_t seed = 1;
  uint32_t repeats = 1;
  board_setting board;  // of patterns that name none
  std::string mode;     // "" for each fault's own

  // How they run.
  std::string shard;   // "K/N" or "auto", "" for all
  std::string resume;  // work directory of an interrupted campaign: its plan holds, with `keep` and `jobs` as here
  std::string work;    // new or empty, "" for a temporary one
  bool keep = false;
  bool locate = false;
  unsigned jobs = std::max(1U, std::thread::hardware_concurrency());
  uint64_t limit = 120;   // processor seconds after which a run counts as hung
  double wall_limit = 0;  // the same of the clock, 0 for ten times as many
  std::string board_sim;
  std::string program;  // "" for post
};

class campaign {
 public:
  //   stop_fd  once it can be read, no further run begins
  campaign(campaign_request request, int stop_fd) : m_request(std::move(request)), m_stop_fd(stop_fd) {}

  // Plans the runs, or takes over the plan of the campaign to go on with. Returns "" or what went wrong.
  [[nodiscard]] std::string prepare();
  // The runs of this shard; those that are still to be done.
  [[nodiscard]] std::vector<run_item> runs() const;
  [[nodiscard]] std::vector<run_item> left() const;
  // Does them; `done` is called after each. Returns "" or what went wrong.
  [[nodiscard]] std::string run(const std::function<void(const run_result &)> &done);
  // Leaves the work directory, so that the campaign can be gone on with, or lets it go with this object.
  void keep(bool stays) { m_work.keep(stays); }
  [[nodiscard]] const std::string &directory() const { return m_work.path(); }

  // Everything is done and taken.
  //   tool    name and version of this program
  //   commit  of its sources, "" if that is not known
  [[nodiscard]] matrix take_matrix(const std::string &tool, const std::string &commit);

 private:
  std::string begin();
  std::string go_on();
  std::string plan_runs();
  [[nodiscard]] std::vector<size_t> own_positions() const;
  [[nodiscard]] std::vector<size_t> positions_left() const;
  [[nodiscard]] std::vector<std::string> deciding(const std::string &program_bytes) const;
  [[nodiscard]] std::string tested_program() const;

  campaign_request m_request;
  int m_stop_fd;
  work_directory m_work;
  campaign_plan m_plan;
  std::optional<runner> m_runner;
  std::map<size_t, run_result> m_done;  // by position
};

}  // namespace lab

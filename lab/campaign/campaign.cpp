#include "lab/campaign/campaign.h"

#include <algorithm>
#include <filesystem>

#include "lab/base/files.h"
#include "lab/base/text.h"
#include "lab/campaign/shards.h"

namespace lab {
namespace {

// Whether the faults are such that the board knows them, with good values.
bool are_good(const std::vector<run_item> &runs, std::string *error) {
  return std::ranges::all_of(runs, [error](const auto &run) { return sim::fault_parse(run.fault, error).has_value(); });
}

std::optional<fault_space> own_space(const campaign_request &request, const space_source &source, std::string *error) {
  fault_space space{"own", "faults as asked for; one fault a run", {}};
  auto patterns = request.faults;
  if (!request.from.empty()) {
    const auto text = read_whole(request.from);
    if (!text) {
      *error = os_error(request.from);
      return std::nullopt;
    }
    for (const auto line : pieces_of(*text, '\n'))
      if (!words_of(line).empty() && !words_of(line)[0].starts_with('#')) patterns.emplace_back(line);
  }
  for (const auto &pattern : patterns) {
    const auto runs = expand(pattern, {request.board, mode_named(request.mode)}, source, error);
    if (!runs || !are_good(*runs, error)) return std::nullopt;
    space.runs.insert(space.runs.end(), runs->begin(), runs->end());
  }
  if (space.runs.empty()) {
    *error = request.from.empty() ? "no board has such a fault" : request.from + ": no faults";
    return std::nullopt;
  }
  return space;
}

std::optional<fault_space> space_of(const campaign_request &asked, const space_source &source, std::string *error) {
  if (asked.healthy > 0) return healthy_space(asked.healthy, mode_named(asked.mode));
  if (!asked.faults.empty() || !asked.from.empty()) return own_space(asked, source, error);
  if (asked.set == "lines") return lines_space(source, error);
  if (asked.set == "cells") return drawn_space(drawn::cells, asked.samples, asked.seed, source, error);
  if (asked.set == "drawn") return drawn_space(drawn::any, asked.samples, asked.seed, source, error);
  if (asked.set == "transients") return transients_space(asked.samples, asked.seed, source, error);
  return standard_space(source, error);
}

runner make_runner(const campaign_request &request, const campaign_plan &plan, const std::string &work, int stop_fd) {
  return {{plan.board_sim,
           work,
           plan.program,
           {std::chrono::milliseconds(plan.limit_ms), std::chrono::milliseconds(plan.wall_limit_ms)},
           request.jobs,
           request.keep,
           plan.locate},
          stop_fd};
}

}  // namespace

std::string campaign::prepare() {
  auto wrong = m_request.resume.empty() ? begin() : go_on();
  if (!wrong.empty()) return wrong;
  m_runner.emplace(make_runner(m_request, m_plan, m_work.path(), m_stop_fd));
  wrong = m_runner->prepare();
  if (!wrong.empty()) return wrong;
  if (m_request.resume.empty()) return plan_runs();
  if (m_plan.fault_list == m_runner->fault_list_text()) return "";
  return "the board's faults are no longer those of the campaign in " + m_work.path();
}

std::string campaign::begin() {
  std::error_code ignored;
  const auto own = std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path().string();
  m_plan.board_sim = m_request.board_sim.empty() ? own + "/board-sim" : absolute_path(m_request.board_sim);
  m_plan.program = absolute_path(m_request.program);
  m_plan.limit_ms = m_request.limit * 1000;
  m_plan.wall_limit_ms =
      m_request.wall_limit > 0 ? static_cast<uint64_t>(m_request.wall_limit * 1000) : 10 * m_plan.limit_ms;
  m_plan.repeats = m_request.repeats;
  m_plan.locate = m_request.locate;
  if (!m_request.shard.empty()) {
    std::string error;
    m_plan.shard = parse_shard(m_request.shard, &error);
    if (!m_plan.shard) return error;
  }
  return m_work.make(m_request.work);
}

std::string campaign::go_on() {
  std::string error = m_work.take_over(m_request.resume);
  if (!error.empty()) return error;
  auto plan = read_plan(m_work.path(), &error);
  if (!plan) return error;
  m_plan = std::move(*plan);
  m_done = read_runs(m_work.path());
  return "";
}

std::string campaign::plan_runs() {
  std::string error;
  auto space = space_of(m_request, m_runner->source(), &error);
  if (auto wrong = m_runner->source_error(); !wrong.empty()) return wrong;
  if (!space) return error;
  m_plan.space = std::move(*space);
  repeat_runs(&m_plan.space, m_request.repeats);
  m_plan.fault_list = m_runner->fault_list_text();
  return write_plan(m_work.path(), m_plan);
}

std::vector<size_t> campaign::own_positions() const {
  const auto shard = m_plan.shard.value_or(shard_number{});
  return split(m_plan.space.runs, shard.of).at(shard.number - 1);
}

std::vector<size_t> campaign::positions_left() const {
  auto positions = own_positions();
  std::erase_if(positions, [this](size_t i) { return m_done.contains(i); });
  return positions;
}

std::vector<run_item> campaign::runs() const {
  std::vector<run_item> own;
  for (const auto i : own_positions())
    own.push_back(m_plan.space.runs[i]);
  return own;
}

std::vector<run_item> campaign::left() const {
  std::vector<run_item> items;
  for (const auto i : positions_left())
    items.push_back(m_plan.space.runs[i]);
  return items;
}

std::string campaign::run(const std::function<void(const run_result &)> &done) {
  std::string wrong;
  auto failed = m_runner->run(m_plan.space.runs, positions_left(), [&](size_t position, run_result result) {
    if (wrong.empty()) wrong = add_run(m_work.path(), position, result);
    done(result);
    m_done.insert_or_assign(position, std::move(result));
  });
  return failed.empty() ? wrong : failed;
}

// post lies beside the board.
std::string campaign::tested_program() const {
  const auto beside = std::filesystem::path(m_plan.board_sim).parent_path() / "post";
  return m_plan.program.empty() ? beside.string() : m_plan.program;
}

// What decides the results beside the runs: the programs, this one among them, and the limits.
std::vector<std::string> campaign::deciding(const std::string &program_bytes) const {
  std::error_code ignored;
  const auto board = std::filesystem::weakly_canonical(m_plan.board_sim, ignored);
  const auto libraries = board.parent_path().parent_path() / "lib";
  std::vector<std::string> all{program_bytes, m_plan.fault_list, std::to_string(m_plan.limit_ms),
                               std::to_string(m_plan.wall_limit_ms)};
  for (const auto &file :
       {std::string("/proc/self/exe"), m_plan.board_sim, (libraries / "libboard_sim.so").string(),
        (libraries / "libutils.so").string(), m_plan.locate ? post_locate_beside(m_plan.board_sim) : ""})
    all.push_back(read_whole(file).value_or(""));
  return all;
}

matrix campaign::take_matrix(const std::string &tool, const std::string &commit) {
  const auto program_bytes = read_whole(tested_program()).value_or("");
  const auto own = own_positions();
  matrix all;
  all.origin = provenance_now(tool, commit, tested_program(), program_bytes);
  all.space = m_plan.space.name;
  all.description = m_plan.space.description;
  all.repeats = m_plan.repeats;
  if (all.space == "standard")
    for (const auto &kind : left_out_kinds())
      all.left_out.emplace_back(kind.name, kind.reason);
  if (const auto &shard = m_plan.shard)
    all.part = {shard->number, shard->of, plan_identity(m_plan.space.runs, deciding(program_bytes)),
                m_plan.space.runs.size(), own};
  for (const auto i : own)
    all.runs.push_back(std::move(m_done.at(i)));
  return all;
}

}  // namespace lab

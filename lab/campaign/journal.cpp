#include "lab/campaign/journal.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>
#include <nlohmann/json.hpp>

#include "lab/base/fault_list.h"
#include "lab/base/files.h"
#include "lab/base/json_defect.h"
#include "lab/campaign/matrix_file.h"

namespace lab {
namespace {

using nlohmann::ordered_json;

constexpr const char *plan_name = "/plan.json";
constexpr const char *runs_name = "/runs";

ordered_json to_json(const run_item &run) {
  return {{"fault", run.fault},        {"card", run.board.card}, {"revision", run.board.revision},
          {"mode", name_of(run.mode)}, {"repeat", run.repeat},   {"stratum", run.stratum}};
}

run_item item_from(const ordered_json &value) {
  const auto mode = mode_named(value.at("mode").get<std::string>());
  if (!mode) throw std::invalid_argument("no such mode");
  return {value.at("fault").get<std::string>(),
          {value.at("card").get<uint32_t>(), value.at("revision").get<std::string>()},
          *mode,
          value.at("repeat").get<uint32_t>(),
          value.at("stratum").get<std::string>()};
}

}  // namespace

std::string write_plan(const std::string &work, const campaign_plan &plan) {
  ordered_json value;
  value["space"] = plan.space.name;
  value["description"] = plan.space.description;
  value["repeats"] = plan.repeats;
  value["limit_ms"] = plan.limit_ms;
  value["wall_limit_ms"] = plan.wall_limit_ms;
  if (plan.shard) value["shard"] = {plan.shard->number, plan.shard->of};
  if (plan.locate) value["locate"] = true;
  value["board_sim"] = plan.board_sim;
  value["program"] = plan.program;
  value["fault_list"] = plan.fault_list;
  auto runs = ordered_json::array();
  for (const auto &run : plan.space.runs)
    runs.push_back(to_json(run));
  value["runs"] = std::move(runs);
  return write_whole(work + plan_name, value.dump(1, ' ', false, ordered_json::error_handler_t::replace) + "\n");
}

std::optional<campaign_plan> read_plan(const std::string &work, std::string *error) try {
  const auto text = read_whole(work + plan_name);
  if (!text) {
    *error = os_error(work + plan_name);
    return std::nullopt;
  }
  const auto value = ordered_json::parse(*text);
  campaign_plan plan;
  plan.space.name = value.at("space").get<std::string>();
  plan.space.description = value.at("description").get<std::string>();
  plan.repeats = value.at("repeats").get<uint32_t>();
  plan.limit_ms = value.at("limit_ms").get<uint64_t>();
  plan.wall_limit_ms = value.at("wall_limit_ms").get<uint64_t>();
  if (value.contains("shard")) {
    plan.shard = {value["shard"].at(0).get<size_t>(), value["shard"].at(1).get<size_t>()};
    if (plan.shard->number < 1 || plan.shard->number > plan.shard->of) throw std::invalid_argument("no such shard");
  }
  plan.locate = value.value("locate", false);
  plan.board_sim = value.at("board_sim").get<std::string>();
  plan.program = value.at("program").get<std::string>();
  plan.fault_list = value.at("fault_list").get<std::string>();
  for (const auto &run : value.at("runs"))
    plan.space.runs.push_back(item_from(run));
  return plan;
} catch (const std::exception &wrong) {
  *error = work + plan_name + ": " + json_defect(wrong);
  return std::nullopt;
}

std::string add_run(const std::string &work, size_t index, const run_result &run) {
  const auto path = work + runs_name;
  // The line end comes first, so that text after a line that was cut off is a line of its own.
  const auto line = "\n" + std::to_string(index) + " " + run_to_json(run, true);
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  const bool good = fd >= 0 && write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  auto wrong = good ? "" : os_error(path);
  if (fd >= 0) (void)close(fd);
  return wrong;
}

std::map<size_t, run_result> read_runs(const std::string &work) {
  std::map<size_t, run_result> runs;
  const auto text = read_whole(work + runs_name).value_or("");
  for (const auto line : pieces_of(text, '\n')) {
    size_t index = 0;
    const auto [end, wrong] = std::from_chars(line.data(), line.data() + line.size(), index);
    std::string error;
    const auto run = run_from_json(line.substr(static_cast<size_t>(end - line.data())), &error);
    if (wrong == std::errc{} && run) runs.insert_or_assign(index, *run);
  }
  return runs;
}

}  // namespace lab

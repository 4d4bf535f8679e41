// post_explain.cpp: the program post-explain, which says what a failed run means.
#include <csignal>
#include <deque>
#include <optional>

#include "lab/base/command_line.h"
#include "lab/base/text.h"
#include "lab/explain/print.h"
#include "lab/run/cases.h"
#include "lab/run/records.h"

namespace {

struct options {
  std::vector<std::string> files;
  std::string records;
  std::optional<int64_t> run;
  bool json = false;
  bool all = false;
};

constexpr char program[] = "post-explain";
constexpr char about[] = "Explains a failed power-on self-test: which part, how sure, what next.";
constexpr char footer[] = R"(Exit status: 0 if there is nothing to explain, 1 if there is, or if a file has no run or
one that was not completed, 2 if the command line is wrong or a file cannot be read.

Examples:
  post | tee post.log; post-explain post.log
  post-explain --records /post/result post.log
  post-explain --json *.log | jq '.files[].runs[].findings[].headline'
  board-sim --fault "nvram-addr-short instance=0 line=7 other=8" | post-explain)";

int complain(const std::string &what) {
  return lab::complain(program, what);
}

void add_options(CLI::App *app, options *chosen) {
  app->add_option("FILE", chosen->files, "the output of runs; - or nothing is standard input");
  app->add_option("--records", chosen->records, "the file with the records of these runs")->type_name("FILE");
  app->add_option("--run", chosen->run, "only the run with this number in each file, 1 for the first")
      ->type_name("N")
      ->check(CLI::PositiveNumber);
  auto *const json = app->add_flag("--json", chosen->json, "JSON, with every candidate");
  app->add_flag("--all", chosen->all, "every candidate in the text, too")->excludes(json);
  app->footer(footer);
  app->set_version_flag("--version,-V", "post-explain " LAB_VERSION);
}

// Both inputs of a call. The parsers' results stay where they are, as explanations point into them.
struct inputs {
  std::deque<lab::log_file> logs;
  lab::record_list records;
  bool have_records = false;
};

bool read_records(const std::string &path, inputs *in, std::string *error) {
  if (path.empty()) return true;
  auto file = lab::open_file(path, error);
  if (!error->empty()) return false;
  in->records = lab::parse_records(file);
  in->have_records = true;
  return true;
}

lab::explained_file explain(const std::string &name, const lab::log_file &log, const inputs &in) {
  lab::explained_file file{lab::printable(name), {}, &log, {}};
  if (in.records.bad_count > 0) file.notes.push_back("records: " + lab::counted(in.records.bad_count, "bad line"));
  if (log.run_count > log.runs.size())
    file.notes.push_back(lab::counted(log.run_count - log.runs.size(), "earlier run") + " left out");
  size_t number = log.run_count - log.runs.size();
  // Records that are older than the log's runs are not asked for.
  for (const auto &pair : lab::pair_runs(in.records.records, log.runs))
    if (pair.log != nullptr || log.runs.empty())
      file.runs.push_back({++number, pair.log, lab::explain_run(pair.log, pair.records)});
  return file;
}

int explain_all(const options &chosen) {
  inputs in;
  std::string error;
  auto names = chosen.files;
  if (names.empty() && chosen.records.empty()) names.emplace_back("-");
  if (names.size() > 1 && !chosen.records.empty()) return complain("records belong to one file of runs");
  if (!read_records(chosen.records, &in, &error)) return complain(error);
  for (const auto &name : names) {
    in.logs.push_back(lab::read_run_log(name, &error));
    if (!error.empty()) return complain(error);
  }
  if (names.empty()) {
    names.push_back(chosen.records);
    in.logs.emplace_back();
  }
  const bool have_logs = names.size() > 1 || names[0] != chosen.records;
  std::vector<lab::explained_file> files;
  for (size_t i = 0; i < names.size(); ++i)
    files.push_back(explain(names[i] == "-" ? "standard input" : names[i], in.logs[i], in));
  bool any = false;
  for (auto &file : files) {
    any |= have_logs && file.log->run_count == 0;
    if (chosen.run)
      std::erase_if(file.runs, [&](const auto &run) { return run.number != static_cast<size_t>(*chosen.run); });
    if (chosen.run && file.runs.empty())
      return complain(file.name + ": there is no run " + std::to_string(*chosen.run));
    for (const auto &run : file.runs)
      any |= !run.what.findings.empty();
  }
  const auto text = chosen.json ? lab::explanations_json(files) : lab::explanations_text(files, chosen.all);
  return lab::put_out(program, text, any ? lab::EXIT_FINDINGS : lab::EXIT_CLEAN);
}

}  // namespace

int main(int argc, char **argv) {
  (void)std::signal(SIGPIPE, SIG_IGN);
  return lab::run_program(program, about, argc, argv, add_options, explain_all);
}

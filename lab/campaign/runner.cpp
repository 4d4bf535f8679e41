#include "lab/campaign/runner.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "lab/base/fault_list.h"
#include "lab/base/files.h"
#include "lab/base/process.h"
#include "lab/campaign/judge.h"

namespace lab {
namespace {

constexpr std::string_view post_directory = "/post/result";
// A call of the board that runs nothing.
constexpr run_limits short_limit{std::chrono::seconds(60), std::chrono::seconds(600)};

std::string program_error(const process_result &process, const std::string &program) {
  if (process.error != 0) {
    errno = process.error;
    return os_error(program);
  }
  return program + ": " + process.output;
}

// Where the board writes its report it writes "COUNT<TAB>FAULT" a line, in the order in which the faults were given.
std::optional<uint64_t> first_count(const std::string &report) {
  uint64_t count = 0;
  const auto [end, wrong] = std::from_chars(report.data(), report.data() + report.size(), count);
  const bool whole = wrong == std::errc{} && end != report.data() + report.size() && *end == '\t';
  return whole ? std::optional(count) : std::nullopt;
}

// Paths of one campaign's work directory are of no use.
std::string without(std::string text, const std::string &part) {
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at))
    text.erase(at, part.size());
  return text;
}

std::vector<pci_position> parse_pci_list(const std::string &text) {
  std::vector<pci_position> functions;
  for (const auto line : pieces_of(text, '\n')) {
    unsigned devfn = 0;
    const auto [end, wrong] = std::from_chars(line.data(), line.data() + line.size(), devfn, 16);
    if (wrong == std::errc{}) functions.push_back({devfn >> 8, devfn >> 3 & 0x1F, devfn & 7});
  }
  return functions;
}

// Lines "ROW<TAB>OCCASIONS<TAB>FAULT" with the number at the end of each row, in the order of the rows.
//   never  what was added to each fault so that it never acts
std::vector<occasion_range> parse_occasions(const std::string &text, std::string_view never) {
  std::vector<occasion_range> ranges;
  std::map<std::string, uint64_t> before;
  for (const auto line : pieces_of(text, '\n')) {
    const auto cells = pieces_of(line, '\t');
    if (cells.size() != 3 || !cells[2].ends_with(never)) continue;
    const std::string fault(cells[2].substr(0, cells[2].size() - never.size()));
    const auto number = parse_c_number(cells[1]).value_or(0);
    auto &last = before[fault];
    if (number > last) ranges.push_back({std::string(cells[0]), fault, last + 1, number});
    last = number;
  }
  return ranges;
}

}  // namespace

std::string runner::prepare() {
  const auto help = run_process({m_options.board_sim, "--help"}, short_limit, m_stop_fd);
  if (help.error != 0 || help.status != 0) return program_error(help, m_options.board_sim);
  if (help.output.find("--fault-report") == std::string::npos)
    return m_options.board_sim + ": this board cannot count how often a fault fired";
  const auto locate = post_locate_beside(m_options.board_sim);
  if (m_options.locate && access(locate.c_str(), X_OK) != 0) return os_error(locate);
  const auto list = run_process({m_options.board_sim, "--list-faults"}, short_limit, m_stop_fd);
  if (list.error != 0 || list.status != 0) return program_error(list, m_options.board_sim);
  m_fault_list_text = list.output;
  m_source.functions = [this](const board_setting &board) {
    if (auto wrong = prepare_board(board); !wrong.empty()) m_source_error = std::move(wrong);
    const auto name = std::to_string(board.card) + "-" + board.revision;
    return parse_pci_list(read_whole(directory("boards/" + name + "/proc/bus/pci/devices")).value_or(""));
  };
  m_source.occasions = [this](const std::vector<std::string> &faults) { return count_occasions(faults); };
  (void)mkdir(directory("boards").c_str(), 0777);
  return m_contents.use(directory("before"));
}

std::string runner::source_error() const {
  pollfd stop{m_stop_fd, POLLIN, 0};
  return m_source_error.empty() && poll(&stop, 1, 0) > 0 ? "interrupted" : m_source_error;
}

// A short run on the healthy board makes its EEPROMs and its PCI list. What a campaign that was killed left of such a
// run is of no use.
std::string runner::prepare_board(const board_setting &board) {
  if (m_contents.has_eeproms(board)) return "";
  const auto state = directory("boards/" + std::to_string(board.card) + "-" + board.revision);
  std::error_code ignored;
  std::filesystem::remove_all(state, ignored);
  const auto made = run_process({m_options.board_sim, "--state", state, "--card", std::to_string(board.card),
                                 "--revision", board.revision, "--", "-s"},
                                short_limit, m_stop_fd);
  if (made.stopped) return "";
  if (made.error != 0 || made.status != 0) return program_error(made, m_options.board_sim);
  auto wrong = m_contents.take_eeproms(board, state);
  (void)std::remove((state + "/flash").c_str());
  return wrong;
}

// All faults in one run, with the contents that every run begins with.
std::vector<occasion_range> runner::count_occasions(const std::vector<std::string> &faults) {
  const run_item healthy{"", {}, run_mode::full};
  const auto home = directory("occasions");
  const auto flash = directory("flash-0");
  std::error_code ignored;
  std::filesystem::create_directories(home, ignored);
  if (!m_contents.make().empty() || !prepare_board(healthy.board).empty() ||
      !m_contents.fill(healthy, home + "/state", flash).empty())
    return {};
  constexpr std::string_view never = " nth=1000000000";
  auto words = command(healthy, home);
  const auto end = std::ranges::find(words, "--");
  std::vector<std::string> probes{"--occasions", home + "/report"};
  for (const auto &fault : faults)
    probes.insert(probes.end(), {"--fault", fault + std::string(never)});
  words.insert(end, probes.begin(), probes.end());
  const auto ran = run_process(words, m_options.limits, m_stop_fd);
  const auto report = read_whole(home + "/report").value_or("");
  std::filesystem::remove_all(home, ignored);
  std::filesystem::remove(flash, ignored);
  return ran.error != 0 || ran.status != 0 ? std::vector<occasion_range>{} : parse_occasions(report, never);
}

// Comparing the flash takes several times as long as a short test, which never reaches it. What other programs do is
// not known.
bool runner::may_reach_flash(const run_item &what) const {
  return what.mode != run_mode::short_test || !m_options.program.empty();
}

std::vector<std::string> runner::command(const run_item &what, const std::string &directory) const {
  std::vector<std::string> words{m_options.board_sim, "--state", directory + "/state", "--fault-report",
                                 directory + "/fired"};
  const auto options = board_options(what);
  words.insert(words.end(), options.begin(), options.end());
  const bool short_test = what.mode == run_mode::short_test;
  if (short_test || !m_options.program.empty()) words.emplace_back("--");
  if (!m_options.program.empty()) words.push_back(m_options.program);
  if (short_test) words.emplace_back("-s");
  return words;
}

std::optional<run_result> runner::run_one(const run_item &what, const std::string &name, unsigned slot,
                                          std::string *error) const {
  const auto home = directory(name);
  const auto state = home + "/state";
  const auto flash = may_reach_flash(what) ? directory("flash-" + std::to_string(slot)) : "";
  std::error_code ignored;
  std::filesystem::remove_all(home, ignored);
  std::filesystem::create_directories(home, ignored);
  *error = m_contents.fill(what, state, flash);
  if (!error->empty()) return std::nullopt;

  run_evidence evidence;
  evidence.process = run_process(command(what, home), m_options.limits, m_stop_fd);
  evidence.changes = m_contents.compare(what, state, flash, m_options.keep);
  if (evidence.process.stopped) return std::nullopt;
  evidence.process.output = without(std::move(evidence.process.output), state);
  evidence.records = read_whole(state + std::string(post_directory)).value_or("");
  if (!what.fault.empty()) evidence.fired = first_count(read_whole(home + "/fired").value_or(""));
  auto result = judge(what, evidence);
  // Without power nothing answers post-locate either.
  const bool has_power = !parse_fault_text(what.fault).name.ends_with("-power-cut");
  if (m_options.locate && result.end != outcome::refused && has_power) {
    result.located = locate(what, home, slot, error);
    if (!result.located) return std::nullopt;
  }
  if (m_options.keep)
    *error = write_whole(home + "/output", evidence.process.output);
  else
    std::filesystem::remove_all(home, ignored);
  return result;
}

std::optional<location> runner::locate(const run_item &what, const std::string &home, unsigned slot,
                                       std::string *error) const {
  auto whole = what;
  whole.mode = run_mode::full;
  const auto state = home + "/located";
  const auto flash = directory("flash-" + std::to_string(slot));
  *error = m_contents.fill(whole, state, flash);
  if (!error->empty()) return std::nullopt;
  std::vector<std::string> words{m_options.board_sim, "--state", state};
  const auto options = board_options(whole, true);
  words.insert(words.end(), options.begin(), options.end());
  words.insert(words.end(), {"--", post_locate_beside(m_options.board_sim), "--cells", "--write", "--wait", "1",
                             "--json", home + "/located.json"});
  const auto process = run_process(words, m_options.limits, m_stop_fd);
  const auto changes = m_contents.compare(whole, state, flash, m_options.keep);
  if (process.stopped) return std::nullopt;
  auto found = judge_location(what, read_whole(home + "/located.json").value_or(""));
  found.contents = contents_text(changes);
  if (m_options.keep) *error = write_whole(home + "/located.txt", process.output);
  return found;
}

std::string post_locate_beside(const std::string &board_sim) {
  return std::filesystem::path(board_sim).parent_path() / "post-locate";
}

std::string runner::run(const std::vector<run_item> &runs, const std::vector<size_t> &wanted, const sink &done) {
  auto wrong = m_contents.make();
  for (unsigned slot = 0; slot < m_options.jobs; ++slot)
    (void)std::remove(directory("flash-" + std::to_string(slot)).c_str());
  for (const auto index : wanted)
    if (wrong.empty()) wrong = prepare_board(runs[index].board);
  if (!wrong.empty()) return wrong;
  std::mutex one_at_a_time;
  std::string failure;
  std::atomic<size_t> next = 0;
  std::atomic<bool> stop = false;
  const auto work = [&](unsigned slot) {
    for (size_t turn = next++; turn < wanted.size() && !stop; turn = next++) {
      const auto index = wanted[turn];
      std::string error;
      auto result = run_one(runs[index], "run-" + std::to_string(index + 1), slot, &error);
      const std::scoped_lock lock(one_at_a_time);
      if (!error.empty()) failure = error;
      if (!result || !error.empty()) stop = true;
      if (result) done(index, std::move(*result));
    }
  };
  {
    std::vector<std::jthread> workers;
    for (unsigned slot = 1; slot < m_options.jobs; ++slot)
      workers.emplace_back(work, slot);
    work(0);
  }
  return failure;
}

}  // namespace lab

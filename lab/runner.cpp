#include "lab/runner.h"

#include <sys/stat.h>

#include <atomic>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>
#include <thread>

#include "lab/files.h"
#include "lab/judge.h"
#include "lab/process.h"

namespace lab {
namespace {

// Ends the flash row in its first sector, before that is erased.
constexpr const char *flash_row_cut = "flash-erase-hangs sector=6";
constexpr std::string_view post_directory = "/post/result";
// A call of the board that runs nothing.
constexpr std::chrono::seconds short_limit{60};

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

// Paths of one campaign's work directory tell nothing.
std::string without(std::string text, const std::string &part) {
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at))
    text.erase(at, part.size());
  return text;
}

std::vector<pci_position> parse_pci_list(const std::string &text) {
  std::vector<pci_position> functions;
  for (const auto line : pieces_of(text, '\n')) {
    unsigned place = 0;
    const auto [end, wrong] = std::from_chars(line.data(), line.data() + line.size(), place, 16);
    if (wrong == std::errc{}) functions.push_back({place >> 8, place >> 3 & 0x1F, place & 7});
  }
  return functions;
}

}  // namespace

std::string runner::prepare() {
  const auto help = run_process({m_options.board_sim, "--help"}, short_limit, m_stop_fd);
  if (help.error != 0 || help.status != 0) return program_error(help, m_options.board_sim);
  if (help.output.find("--fault-report") == std::string::npos)
    return m_options.board_sim + ": this board cannot tell whether a fault has fired";
  m_fault_list_text = run_process({m_options.board_sim, "--list-faults"}, short_limit, m_stop_fd).output;
  std::string error;
  auto faults = parse_fault_list(m_fault_list_text, &error);
  if (!faults) return m_options.board_sim + ": " + error;
  m_source.faults = std::move(*faults);
  m_source.functions = [this](const board_setting &board) {
    if (!prepare_board(board).empty()) return std::vector<pci_position>{};
    const auto name = std::to_string(board.card) + "-" + board.revision;
    return parse_pci_list(read_whole(directory("boards/" + name + "/proc/bus/pci/devices")).value_or(""));
  };
  (void)mkdir(directory("boards").c_str(), 0777);
  return m_contents.use(directory("before"));
}

// A short run on the healthy board makes its EEPROMs and its PCI list.
std::string runner::prepare_board(const board_setting &board) {
  if (m_contents.has_eeproms(board)) return "";
  const auto state = directory("boards/" + std::to_string(board.card) + "-" + board.revision);
  const auto made = run_process({m_options.board_sim, "--state", state, "--card", std::to_string(board.card),
                                 "--revision", board.revision, "--", "-s"},
                                short_limit, m_stop_fd);
  if (made.stopped) return "";
  if (made.error != 0 || made.status != 0) return program_error(made, m_options.board_sim);
  auto wrong = m_contents.take_eeproms(board, state);
  (void)std::remove((state + "/flash").c_str());
  return wrong;
}

std::vector<std::string> runner::command(const run_item &what, const std::string &directory) const {
  std::vector<std::string> words{m_options.board_sim,
                                 "--state",
                                 directory + "/state",
                                 "--card",
                                 std::to_string(what.board.card),
                                 "--revision",
                                 what.board.revision,
                                 "--fault-report",
                                 directory + "/fired"};
  if (!what.fault.empty()) words.insert(words.end(), {"--fault", what.fault});
  if (what.mode == run_mode::cut) words.insert(words.end(), {"--fault", flash_row_cut});
  if (what.mode == run_mode::brief || !m_options.program.empty()) words.emplace_back("--");
  if (!m_options.program.empty()) words.push_back(m_options.program);
  if (what.mode == run_mode::brief) words.emplace_back("-s");
  return words;
}

std::optional<run_result> runner::run_one(const run_item &what, const std::string &name, unsigned slot,
                                          std::string *error) const {
  const auto place = directory(name);
  const auto state = place + "/state";
  const auto flash = directory("flash-" + std::to_string(slot));
  std::error_code ignored;
  std::filesystem::remove_all(place, ignored);
  std::filesystem::create_directories(place, ignored);
  *error = m_contents.fill(what, state, flash);
  if (!error->empty()) return std::nullopt;

  run_evidence evidence;
  evidence.process = run_process(command(what, place), m_options.limit, m_stop_fd);
  evidence.changes = m_contents.compare(what, state, flash, m_options.keep);
  if (evidence.process.stopped) return std::nullopt;
  evidence.process.output = without(std::move(evidence.process.output), state);
  evidence.records = read_whole(state + std::string(post_directory)).value_or("");
  if (!what.fault.empty()) evidence.fired = first_count(read_whole(place + "/fired").value_or(""));
  auto result = judge(what, evidence);
  if (m_options.keep)
    *error = write_whole(place + "/output", evidence.process.output);
  else
    std::filesystem::remove_all(place, ignored);
  return result;
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

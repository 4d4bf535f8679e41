#include "lab/table.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "lab/fault_list.h"
#include "lab/patterns.h"
#include "lab/text.h"

namespace lab {
namespace {

// Seconds of a run, before one is known.
constexpr std::array<double, 3> usual_seconds{0.1, 0.6, 5};

std::string joined(const std::vector<std::string> &words) {
  std::string text;
  for (const auto &word : words)
    text += (text.empty() ? "" : " ") + word;
  return text;
}

std::vector<std::string> cells_of(const run_result &run) {
  auto fault = run.what.fault.empty() ? "healthy board" : run.what.fault;
  if (run.what.repeat > 0) fault += " #" + std::to_string(run.what.repeat + 1);
  auto last = run.line;
  if (!run.contents.empty()) last += (last.empty() ? "[" : " [") + run.contents + "]";
  return {title_of(run),
          fault,
          std::to_string(run.what.board.card) + " " + run.what.board.revision,
          std::string(name_of(run.what.mode)),
          fired_text(run),
          run.verdict + (run.reported.empty() ? "" : ": " + joined(run.reported)),
          last};
}

void add_rates(const matrix &all, std::string *text) {
  *text += "\nDetection of runs in which the fault fired, with the 95 % confidence interval:\n";
  for (const auto &rate : rates(all)) {
    *text += "  " + rate.what.fault + ": fired in " + share(rate.fired, rate.runs);
    if (rate.fired > 0) {
      const auto range = wilson(rate.found, rate.fired);
      *text += ", found in " + share(rate.found, rate.fired) + ", " + percent(range.low) + " to " + percent(range.high);
    }
    if (rate.first_found) *text += ", first in run " + std::to_string(*rate.first_found);
    if (all.times && rate.seconds_to_found) *text += " after " + seconds_text(*rate.seconds_to_found);
    *text += "\n";
  }
}

void add_groups(const matrix &all, std::string *text) {
  for (const auto &group : groups_of(all)) {
    *text += "\n" + title_of(*group.runs.front()) + ", " + std::to_string(group.runs.size()) + ": " +
             (group.reason.empty() ? "REASON NOT KNOWN" : group.reason) + "\n";
    for (const auto &pattern : group.patterns())
      *text += "  " + pattern + "\n";
  }
}

}  // namespace

std::string fired_text(const run_result &run) {
  return run.fired ? std::to_string(*run.fired) + (run.fired_more ? "+" : "") : "-";
}

std::string percent(double rate) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%.1f %%", 100 * rate);
  return text;
}

std::string seconds_text(double seconds) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%.1f s", seconds);
  return text;
}

std::string share(size_t count, size_t of) {
  const auto text = std::to_string(count) + " of " + std::to_string(of);
  return of == 0 ? text : text + " (" + percent(static_cast<double>(count) / static_cast<double>(of)) + ")";
}

std::string sentence_counts(const matrix &all) {
  if (std::ranges::all_of(all.runs, [](const auto &run) { return run.what.fault.empty(); })) return "";
  const auto count = [&](auto counted) {
    return share(static_cast<size_t>(std::ranges::count_if(all.runs, counted)), all.runs.size());
  };
  return "Reported by the right device, whatever else happened: " + count(&run_result::right) +
         ". Unnoticed, with every device passing: " + count(is_unnoticed) + ".";
}

std::string times_text(const matrix &all) {
  if (!all.times) return "";
  const double cpu = all.times->run_cpu + all.times->other_cpu;
  return std::to_string(all.runs.size()) + " runs in " + seconds_text(all.times->elapsed) + ", " +
         std::to_string(all.times->jobs) + " at a time; " + seconds_text(cpu) + " of processor time, of which " +
         seconds_text(all.times->other_cpu) + " (" + percent(cpu > 0 ? all.times->other_cpu / cpu : 0) +
         ") besides the runs.";
}

std::string matrix_table(const matrix &all, size_t width) {
  std::vector<std::vector<std::string>> lines{
      {"OUTCOME", "FAULT", "BOARD", "MODE", "FIRED", "VERDICT", "FIRST LINE [CONTENTS]"}};
  for (const auto &run : all.runs)
    lines.push_back(cells_of(run));
  auto text = columns(lines);
  if (width == 0) return text;
  std::string cut;
  for (const auto line : pieces_of(text, '\n'))
    if (!line.empty()) cut += std::string(line.substr(0, width)) + "\n";
  return cut;
}

std::string matrix_summary(const matrix &all) {
  std::string text = "Fault space \"" + all.space + "\": " + all.description + ".\n";
  const auto counts = count_outcomes(all.runs);
  for (size_t i = 0; i < outcome_count; ++i) {
    if (counts[i] == 0) continue;
    auto title = std::string(outcome_texts[i].title);
    title.resize(30, ' ');
    text += "  " + title + share(counts[i], all.runs.size()) + "\n";
  }
  if (const auto sentences = sentence_counts(all); !sentences.empty()) text += sentences + "\n";
  if (all.repeats > 1) add_rates(all, &text);
  add_groups(all, &text);
  if (!all.left_out.empty()) text += "\nLeft out of this space:\n";
  for (const auto &[fault, reason] : all.left_out)
    text += "  " + fault + ": " + reason + "\n";
  if (all.times) text += "\n" + times_text(all) + "\n";
  return text;
}

std::vector<std::string> reason_group::patterns() const {
  std::vector<run_item> items;
  for (const auto *const run : runs)
    items.push_back(run->what);
  return patterns_of(items);
}

std::vector<reason_group> groups_of(const matrix &all) {
  std::vector<reason_group> groups;
  for (const auto &run : all.runs) {
    if (run.end == outcome::found || run.end == outcome::healthy) continue;
    const auto same = [&](const reason_group &group) {
      return title_of(*group.runs.front()) == title_of(run) && group.reason == run.reason;
    };
    auto group = std::ranges::find_if(groups, same);
    if (group == groups.end()) group = groups.insert(groups.end(), {run.end, run.reason, {}});
    group->runs.push_back(&run);
  }
  std::ranges::stable_sort(
      groups, {}, [](const reason_group &group) { return std::pair(!is_unnoticed(*group.runs.front()), group.end); });
  return groups;
}

live_line::live_line(const std::vector<run_item> &left, unsigned jobs)
    : m_shown(isatty(STDERR_FILENO) != 0), m_jobs(jobs), m_all(left.size()) {
  for (const auto &run : left)
    ++m_left.at(static_cast<size_t>(run.mode));
}

double live_line::seconds_left() const {
  double seconds = 0;
  for (size_t mode = 0; mode < m_left.size(); ++mode) {
    const double one =
        m_counted[mode] == 0 ? usual_seconds[mode] : m_seconds[mode] / static_cast<double>(m_counted[mode]);
    seconds += one * static_cast<double>(m_left[mode]);
  }
  return seconds / m_jobs;
}

void live_line::add(const run_result &run) {
  const auto mode = static_cast<size_t>(run.what.mode);
  ++m_done;
  --m_left.at(mode);
  ++m_counted.at(mode);
  m_seconds.at(mode) += run.seconds;
  if (!run.reported.empty()) ++m_found;
  if (is_unnoticed(run)) ++m_missed;
  if (!m_shown) return;
  const auto left = static_cast<unsigned>(std::lround(seconds_left()));
  (void)std::fprintf(stderr, "\r\033[K%zu of %zu done, %zu found, %zu missed, %u:%02u left", m_done, m_all, m_found,
                     m_missed, left / 60, left % 60);
}

void live_line::end() {
  if (m_shown && m_done > 0) (void)std::fputs("\r\033[K", stderr);
}

}  // namespace lab

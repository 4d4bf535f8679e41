#include "lab/report/table.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>

#include "faults/text.h"
#include "lab/base/fault_list.h"
#include "lab/base/text.h"
#include "lab/report/patterns.h"

namespace lab {
namespace {

std::string joined(const std::vector<std::string> &words) {
  std::string text;
  for (const auto &word : words)
    text += (text.empty() ? "" : " ") + word;
  return text;
}

// What a line says at 80 columns, and what it says if there is room for all.
std::vector<std::string> short_cells(const run_result &run) {
  return {mark_of(run), name_of(run.what), run.reported.empty() ? run.verdict : joined(run.reported)};
}

std::vector<std::string> all_cells(const run_result &run) {
  auto last = run.line;
  if (!run.contents.empty()) last += (last.empty() ? "[" : " [") + run.contents + "]";
  return {title_of(run),
          name_of(run.what),
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
    if (rate.fired > 0)
      *text += ", found in " + share(rate.found, rate.fired) + ", " + range_text(rate.found, rate.fired);
    if (rate.first_found) *text += ", first in run " + std::to_string(*rate.first_found);
    if (all.times && rate.seconds_to_found) *text += " after " + seconds_text(*rate.seconds_to_found);
    *text += "\n";
  }
}

void add_strata(const matrix &all, std::string *text) {
  std::string stratum;
  for (const auto &one : strata_of(all)) {
    if (stratum.empty()) *text += "\nRates in each stratum, with the 95 % confidence interval:\n";
    if (stratum != one.stratum) *text += one.stratum + "\n";
    stratum = one.stratum;
    *text += "  " + one.title + ": " + share(one.count, one.of) + ", " + range_text(one.count, one.of) + "\n";
  }
}

// A line for each group; what is unexplained needs a look, so its runs are listed.
void add_groups(const matrix &all, bool wide, std::string *text) {
  *text += "\n";
  for (const auto &group : groups_of(all)) {
    *text += std::to_string(group.runs.size()) + " " + title_of(*group.runs.front()) + ": " + group.why() + "\n";
    if (!wide && !group.reason.empty()) continue;
    for (const auto &pattern : group.patterns())
      *text += "  " + pattern + "\n";
  }
}

}  // namespace

std::string fired_text(const run_result &run) {
  return run.fired ? std::to_string(*run.fired) + (run.fired_more ? "+" : "") : "-";
}

std::string range_text(size_t count, size_t of) {
  const auto range = interval_of(count, of);
  return percent(range.low) + " to " + percent(range.high);
}

std::string seconds_text(double seconds) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%.1f s", seconds);
  return text;
}

std::string sentence_counts(const matrix &all) {
  if (std::ranges::all_of(all.runs, [](const auto &run) { return run.what.fault.empty(); })) return "";
  const auto count = [&](auto counted) {
    return share(static_cast<size_t>(std::ranges::count_if(all.runs, counted)), all.runs.size());
  };
  return "Reported by the right device, also if something else happened: " + count(&run_result::right) +
         ". Unnoticed, while every device passed: " + count(is_unnoticed) + ".";
}

std::string located_sentence(const matrix &all) {
  const auto counts = counts_text(count_located(all.runs));
  return counts.empty() ? "" : "post-locate on the same boards: " + counts + ".";
}

std::string times_text(const matrix &all) {
  if (!all.times) return "";
  const double cpu = all.times->run_cpu + all.times->other_cpu;
  const auto jobs = all.times->jobs;
  return counted(all.runs.size(), "run") + (jobs == 0 ? " in parts, the longest in " : " in ") +
         seconds_text(all.times->elapsed) + (jobs == 0 ? "" : ", " + std::to_string(jobs) + " at a time") + "; " +
         seconds_text(cpu) + " of processor time, of which " + seconds_text(all.times->other_cpu) + " (" +
         percent(cpu > 0 ? all.times->other_cpu / cpu : 0) + ") besides the runs.";
}

std::string matrix_table(const matrix &all, size_t width, bool wide) {
  std::vector<std::vector<std::string>> lines;
  if (wide)
    lines.push_back({"OUTCOME", "FAULT", "BOARD", "MODE", "FIRED", "VERDICT", "FIRST LINE [CONTENTS]"});
  else
    lines.push_back({"", "FAULT", "REPORTED BY, OR VERDICT"});
  const bool located = std::ranges::any_of(all.runs, [](const auto &run) { return run.located.has_value(); });
  if (located) lines.front().insert(lines.front().end() - 1, "POST-LOCATE");
  for (const auto &run : all.runs) {
    auto &cells = lines.emplace_back(wide ? all_cells(run) : short_cells(run));
    if (located) cells.insert(cells.end() - 1, run.located ? run.located->title() : "-");
  }
  return columns(lines, width);
}

std::string matrix_summary(const matrix &all, bool wide) {
  std::string text = "Fault space \"" + all.space + "\": " + all.description + ".\n";
  const auto counts = count_outcomes(all.runs);
  for (size_t i = 0; i < outcome_count; ++i) {
    if (counts[i] == 0) continue;
    auto title = std::string(outcome_texts[i].title);
    title.resize(30, ' ');
    text += "  " + title + share(counts[i], all.runs.size()) + "\n";
  }
  for (const auto &sentences : {sentence_counts(all), located_sentence(all)})
    if (!sentences.empty()) text += sentences + "\n";
  if (all.repeats > 1) add_rates(all, &text);
  add_strata(all, &text);
  add_groups(all, wide, &text);
  if (!all.left_out.empty()) text += "\nLeft out of this space:\n";
  for (const auto &[fault, reason] : all.left_out)
    text += "  " + fault + ": " + reason + "\n";
  if (all.times) text += "\n" + times_text(all) + "\n";
  return text;
}

std::string reason_group::why() const {
  return reason.empty() ? "unexplained" : reason;
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

live_line::live_line(const std::vector<run_item> &left, unsigned jobs, std::chrono::seconds between)
    : m_terminal(sim::can_rewrite_a_line()), m_between(between), m_jobs(jobs), m_all(left.size()) {
  for (const auto &run : left)
    ++m_left.at(static_cast<size_t>(run.mode));
}

// By what the runs of each mode took. All else that a run costs, such as post-locate after it, is in proportion.
double live_line::seconds_left() const {
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - m_began;
  const double busy = std::accumulate(m_seconds.begin(), m_seconds.end(), 0.0);
  double seconds = 0;
  for (size_t mode = 0; mode < m_left.size(); ++mode) {
    const double one = m_counted[mode] == 0 ? expected_seconds(static_cast<run_mode>(mode))
                                            : m_seconds[mode] / static_cast<double>(m_counted[mode]);
    seconds += one * static_cast<double>(m_left[mode]);
  }
  return seconds / m_jobs * (busy > 0 ? std::max(elapsed.count() * m_jobs / busy, 1.0) : 1);
}

void live_line::add(const run_result &run) {
  const auto mode = static_cast<size_t>(run.what.mode);
  ++m_done;
  --m_left.at(mode);
  ++m_counted.at(mode);
  m_seconds.at(mode) += run.seconds;
  if (!run.reported.empty()) ++m_found;
  if (is_unnoticed(run)) ++m_missed;
  const auto now = std::chrono::steady_clock::now();
  if (!m_terminal && now - m_said < m_between) return;
  m_said = now;
  const auto left = static_cast<unsigned>(std::lround(seconds_left()));
  (void)std::fprintf(stderr, "%s%zu of %zu done, %zu found, %zu missed, %u:%02u left%s", m_terminal ? "\r\033[K" : "",
                     m_done, m_all, m_found, m_missed, left / 60, left % 60, m_terminal ? "" : "\n");
}

void live_line::end() {
  if (m_terminal && m_done > 0) (void)std::fputs("\r\033[K", stderr);
}

}  // namespace lab

#include "lab/explain_score.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <set>

#include "lab/explain.h"

namespace lab {
namespace {

constexpr std::string_view memories[] = {"nvram-", "flash-"};

bool is_of_memory(std::string_view name) {
  return std::ranges::any_of(memories, [&](std::string_view memory) { return name.starts_with(memory); });
}

bool is_of_lines(std::string_view name) {
  return name.find("-data-") != std::string_view::npos || name.find("-addr-") != std::string_view::npos;
}

bool is_intermittent(const fault_text &fault) {
  constexpr std::string_view keys[] = {"nth", "times", "p"};
  const bool timed = std::ranges::any_of(keys, [&](std::string_view key) { return fault.find(key).has_value(); });
  return timed && is_of_memory(fault.name) && fault.name != "flash-power-cut";
}

uint64_t places_of_lines(std::span<const fault_group> faults) {
  std::set<std::string_view> places;
  for (const auto &group : faults)
    if (is_of_lines(group.name)) places.insert(group.where);
  return places.size();
}

// How a run takes part in the score.
enum class run_kind : uint8_t {
  none,          // healthy, never explained, or not run to an end
  silent,        // printed nothing of its fault
  printed,       // lines alone tell of it: no device failed, and the run came to its end
  intermittent,  // of a memory: it acts in some accesses, so that what it prints is not the model's
  detected,
};

run_kind kind_of(const run_result &run) {
  const bool ended = run.end != outcome::hung && run.end != outcome::refused;
  if (run.what.fault.empty() || !run.explained || !ended) return run_kind::none;
  const bool verdict = !run.reported.empty() || run.verdict == "none";
  if (!verdict) return run.line.empty() ? run_kind::silent : run_kind::printed;
  return is_intermittent(parse_fault_text(run.what.fault)) ? run_kind::intermittent : run_kind::detected;
}

// ---- page

struct counters {
  size_t runs = 0;
  size_t listed = 0;
  std::vector<uint64_t> places;
  std::vector<uint64_t> sure;
  std::vector<uint64_t> lines;
};

void count(const run_result &run, counters *sum) {
  ++sum->runs;
  if (!run.explained || !run.explained->listed) return;
  ++sum->listed;
  sum->places.push_back(run.explained->places);
  sum->sure.push_back(run.explained->sure_places);
  sum->lines.push_back(run.explained->line_places);
}

std::string share(size_t part, size_t of) {
  char text[48];
  (void)std::snprintf(text, sizeof text, "%zu of %zu (%.1f %%)", part, of,
                      of == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(of));
  return text;
}

std::string number_text(double number) {
  char text[32];
  (void)std::snprintf(text, sizeof text, number < 1000 ? "%.1f" : "%.0f", number);
  return text;
}

std::string mean(const std::vector<uint64_t> &numbers) {
  if (numbers.empty()) return "";
  double sum = 0;
  for (const auto number : numbers)
    sum += static_cast<double>(number);
  return number_text(sum / static_cast<double>(numbers.size()));
}

std::string at_most(const std::vector<uint64_t> &numbers, uint64_t limit) {
  return std::to_string(std::ranges::count_if(numbers, [limit](uint64_t number) { return number <= limit; }));
}

std::string cells(const std::string &name, const counters &sum) {
  const bool lines = is_of_lines(name);
  return "| `" + name + "` | " + std::to_string(sum.runs) + " | " + share(sum.listed, sum.runs) + " | " +
         mean(sum.places) + " | " + at_most(sum.places, 1) + " | " + at_most(sum.places, 2) + " | " + mean(sum.sure) +
         " | " + (lines ? mean(sum.lines) : "") + " | " + (lines ? at_most(sum.lines, 1) : "") + " | " +
         (lines ? at_most(sum.lines, 2) : "") + " |\n";
}

struct section {
  std::string_view prefix;
  std::string_view title;
};
constexpr std::array sections{section{"nvram-", "NVRAM"}, section{"flash-", "Flash"}, section{"", "Everything else"}};

std::string section_text(const section &of, const std::map<std::string, counters> &kinds) {
  std::string rows;
  for (const auto &[name, sum] : kinds) {
    const bool belongs = of.prefix.empty() ? !is_of_memory(name) : name.starts_with(of.prefix);
    if (belongs) rows += cells(name, sum);
  }
  if (rows.empty()) return "";
  return "\n## " + std::string(of.title) +
         "\n\n| Fault | Detected | True fault in the list | Places, mean | Alone | At most two | Whatever it held, "
         "mean | Lines, mean | Alone | At most two |\n|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|\n" +
         rows;
}

constexpr std::string_view page_head =
    "# What the explanations are worth\n\n"
    "Made by `post-campaign --explain`, from what the runs of a campaign printed; the fault of each is known.\n";
constexpr std::string_view page_legend =
    "\nA place is a line, a pair of lines, the cell that reads wrong, an operation of a chip, a byte: what a person "
    "would\n"
    "go to and measure or replace. One place can be bad in several ways, which stand beside each other in the list. "
    "The\n"
    "last three columns leave cells out: how well lines are told from lines. A list that holds the true fault is no\n"
    "proof of it: where there are several places the lines alone do not decide, and the program says so.\n";

}  // namespace

run_explanation explain_result(const run_item &run, const run_log *log, std::span<const record> records) {
  auto what = explain_run(log, records);
  // A flash row that was cut short tells of the cut.
  if (run.mode == run_mode::cut)
    std::erase_if(what.findings, [](const finding &found) { return found.device.starts_with("obfl"); });
  run_explanation told{what.in_short()};
  const auto fault = parse_fault_text(run.fault);
  const auto lists = [&fault](std::span<const fault_group> groups) {
    return std::ranges::any_of(groups, [&](const fault_group &group) { return group.holds(fault); });
  };
  for (const auto &found : what.findings) {
    if (lists(found.faults)) return {told.text, true, found.places, found.sure_places, places_of_lines(found.faults)};
    if (!is_intermittent(fault) || !lists(found.passing)) continue;
    return {told.text, true, count_places(found.passing, false), count_places(found.passing, true),
            places_of_lines(found.passing)};
  }
  return told;
}

std::vector<std::string> left_out_faults(const matrix &all) {
  std::vector<std::string> faults;
  for (const auto &run : all.runs)
    if (kind_of(run) == run_kind::detected && !run.explained->listed) faults.push_back(run.what.key());
  return faults;
}

std::string matrix_to_score(const matrix &all) {
  std::map<std::string, counters> kinds;
  std::map<run_kind, counters> sums;
  for (const auto &run : all.runs) {
    const auto kind = kind_of(run);
    count(run, &sums[kind]);
    if (kind == run_kind::detected) count(run, &kinds[parse_fault_text(run.what.fault).name]);
  }
  const auto &total = sums[run_kind::detected];
  const auto listed = [&](run_kind kind) { return share(sums[kind].listed, sums[kind].runs); };
  std::string page(page_head);
  page += "\nFault space \"" + all.space + "\". Of the detected faults that last, " + listed(run_kind::detected) +
          " are in the list of candidates; " + at_most(total.places, 1) + " are named alone, " +
          at_most(total.places, 2) + " with at most one other place.\n";
  page += "Of the faults that were printed without any device failing, " + listed(run_kind::printed) +
          " are. Of the memory faults that come and go, " + listed(run_kind::intermittent) +
          ": such a fault is taken to act in one access alone, so that not each need be, and they do not count. " +
          std::to_string(sums[run_kind::silent].runs) + " runs printed nothing of their fault.\n";
  page += page_legend;
  for (const auto &one : sections)
    page += section_text(one, kinds);
  return page;
}

}  // namespace lab

#include "lab/campaign/score.h"

#include <algorithm>
#include <array>
#include <map>

#include "lab/base/text.h"
#include "lab/explain/explain.h"

namespace lab {
namespace {

// How a run takes part in the score.
enum class run_kind : uint8_t {
  none,     // healthy, never explained, or hung
  silent,   // printed nothing about its fault
  printed,  // only lines report it: no device failed, and the run finished
  detected,
};

run_kind kind_of(const run_result &run) {
  const bool ended = run.end != outcome::hung && run.end != outcome::refused;
  if (run.what.fault.empty() || !run.explained || !ended) return run_kind::none;
  if (!run.reported.empty() || run.verdict == "none") return run_kind::detected;
  return run.explained->text.empty() ? run_kind::silent : run_kind::printed;
}

struct counters {
  size_t runs = 0;
  size_t listed = 0;
  std::array<size_t, 3> headlines{};  // by what they say
  std::vector<uint64_t> places;
};

void count(const run_result &run, counters *sum) {
  ++sum->runs;
  ++sum->headlines.at(static_cast<size_t>(run.explained->headline));
  if (!run.explained->listed) return;
  ++sum->listed;
  sum->places.push_back(run.explained->places);
}

std::string only_one(const counters &sum) {
  return std::to_string(std::ranges::count_if(sum.places, [](uint64_t places) { return places <= 1; }));
}

std::string median(std::vector<uint64_t> numbers) {
  if (numbers.empty()) return "";
  const auto middle = numbers.begin() + static_cast<std::ptrdiff_t>(numbers.size() / 2);
  std::ranges::nth_element(numbers, middle);
  return std::to_string(*middle);
}

struct section {
  std::string_view prefix;
  std::string_view title;
};
constexpr section sections[] = {{"nvram-", "NVRAM"}, {"flash-", "Flash"}, {"", "Everything else"}};

std::string section_text(const section &of, const std::map<std::string, counters> &kinds) {
  std::string lines;
  for (const auto &[name, sum] : kinds) {
    const std::string_view kind = name;
    const auto *const first =
        std::ranges::find_if(sections, [kind](const section &one) { return kind.starts_with(one.prefix); });
    if (first->prefix != of.prefix) continue;
    lines += "| `" + name + "` | " + std::to_string(sum.runs) + " | " + std::to_string(sum.listed) + " |";
    for (const auto headlines : sum.headlines)
      lines += " " + std::to_string(headlines) + " |";
    lines += " " + only_one(sum) + " | " + median(sum.places) + " |\n";
  }
  if (lines.empty()) return "";
  return "\n## " + std::string(of.title) +
         "\n\n| Fault | Detected | Listed | Headline leaves it out | Names no place | Names it | Only one place | "
         "Places, median |\n|---|--:|--:|--:|--:|--:|--:|--:|\n" +
         lines;
}

constexpr std::string_view page_head =
    "# What the explanations are worth\n\n"
    "Made by `post-campaign --explain`, from the output of the runs of a campaign; the fault of each run is known.\n";
constexpr std::string_view page_legend =
    "\nListed: the true fault is among the candidates. A headline that names places leaves it out if the fault is at "
    "none of them; that counts as wrong. A headline names no place if it says that the log does not show it and the "
    "fault is at no place that it names. A place is a line, a pair of lines, the cell that reads wrong, an operation "
    "of a chip or a byte: something that a person can measure or replace. Where there are many, a headline names their "
    "kind, such as cells or data lines; for the flash a kind counts as one place. A list that contains the true fault "
    "does not prove it: with several places, the output is not enough to decide, and the program says so. Places are "
    "those "
    "of the faults that print the lines each time; where the true one does only if it comes and goes, of all "
    "candidates.\n";

// How many places are candidates as well as the fault's: those of the faults that always print the lines if it is one
// of them, else all.
size_t places_beside(const finding &found, const fault_text &fault) {
  auto groups = found.faults;
  if (std::ranges::none_of(groups, [&](const fault_group &group) { return group.holds(fault); }))
    groups.insert(groups.end(), found.now_and_then.begin(), found.now_and_then.end());
  return count_places(groups);
}

}  // namespace

run_explanation explain_result(const run_item &run, const run_log *log, std::span<const record> records) {
  auto what = explain_run(log, records);
  // A flash row that was cut short reports the cut.
  if (run.mode == run_mode::no_flash)
    std::erase_if(what.findings, [](const finding &found) { return found.device.starts_with("obfl"); });
  run_explanation result{.text = what.in_short()};
  const auto fault = parse_fault_text(run.fault);
  for (const auto &found : what.findings) {
    if (!found.lists(fault)) continue;
    result.headline = std::max(result.headline, found.headline_on(fault));
    if (!result.listed) result.places = places_beside(found, fault);
    result.listed = true;
  }
  return result;
}

std::vector<std::string> left_out_faults(const matrix &all) {
  std::vector<std::string> faults;
  for (const auto &run : all.runs)
    if (kind_of(run) == run_kind::detected &&
        (!run.explained->listed || run.explained->headline == headline_says::leaves_out))
      faults.push_back(run.what.key());
  return faults;
}

std::string matrix_to_score(const matrix &all) {
  std::map<std::string, counters> kinds;
  std::map<run_kind, counters> sums;
  for (const auto &run : all.runs) {
    const auto kind = kind_of(run);
    if (kind == run_kind::none) continue;
    count(run, &sums[kind]);
    if (kind == run_kind::detected) count(run, &kinds[parse_fault_text(run.what.fault).name]);
  }
  const auto &total = sums[run_kind::detected];
  const auto &printed = sums[run_kind::printed];
  const auto headlines = [&](headline_says what) {
    return share(total.headlines.at(static_cast<size_t>(what)), total.runs);
  };
  std::string page(page_head);
  page += "Origin: " + all.origin.text(false) + ".\n\nFault space \"" + all.space + "\": " + all.description +
          ".\n\nOf the detected faults, " + share(total.listed, total.runs) +
          " are among the candidates. The headlines name " + headlines(headline_says::names) + ", leave out " +
          headlines(headline_says::leaves_out) + ", and name no place for " + headlines(headline_says::no_place) +
          ". In " + only_one(total) +
          " explanations no other place prints the lines each time; some can if they come and go. Of the faults that "
          "were printed although no device failed, " +
          share(printed.listed, printed.runs) + " are listed. " + std::to_string(sums[run_kind::silent].runs) +
          " runs printed nothing about their fault.\n";
  page += page_legend;
  for (const auto &one : sections)
    page += section_text(one, kinds);
  return fold_page(page);
}

}  // namespace lab

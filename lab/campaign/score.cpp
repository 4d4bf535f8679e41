#include "lab/campaign/score.h"

#include <algorithm>
#include <cstdio>
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
  size_t left_out = 0;  // by the headline
  std::vector<uint64_t> places;
};

void count(const run_result &run, counters *sum) {
  ++sum->runs;
  if (!run.explained->named) ++sum->left_out;
  if (!run.explained->listed) return;
  ++sum->listed;
  sum->places.push_back(run.explained->places);
}

std::string share(size_t part, size_t of) {
  char text[48];
  (void)std::snprintf(text, sizeof text, "%zu of %zu (%.1f %%)", part, of,
                      of == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(of));
  return text;
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
    lines += "| `" + name + "` | " + std::to_string(sum.runs) + " | " + std::to_string(sum.listed) + " | " +
             std::to_string(sum.left_out) + " | " + only_one(sum) + " | " + median(sum.places) + " |\n";
  }
  if (lines.empty()) return "";
  return "\n## " + std::string(of.title) +
         "\n\n| Fault | Detected | Listed | Headline leaves it out | Only one place | Places, median |\n"
         "|---|--:|--:|--:|--:|--:|\n" +
         lines;
}

constexpr std::string_view page_head =
    "# What the explanations are worth\n\n"
    "Made by `post-campaign --explain`, from the output of the runs of a campaign; the fault of each run is known.\n";
constexpr std::string_view page_legend =
    "\nListed: the true fault is among the candidates. A headline leaves it out if none of the places that it names "
    "has the fault; that counts as wrong. A place is a line, a pair of lines, the cell that reads wrong, an operation "
    "of a chip or a byte: something that a person can measure or replace. A list that contains the true fault does "
    "not prove it: with several places, the output is not enough to decide, and the program says so. For the flash it "
    "names kinds of places only.\n";

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
    result.named |= found.headline_names(fault);
    if (!result.listed) result.places = count_places(found.faults.empty() ? found.now_and_then : found.faults);
    result.listed = true;
  }
  return result;
}

std::vector<std::string> left_out_faults(const matrix &all) {
  std::vector<std::string> faults;
  for (const auto &run : all.runs)
    if (kind_of(run) == run_kind::detected && !(run.explained->listed && run.explained->named))
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
  std::string page(page_head);
  page += "Origin: " + all.origin.text(false) + ".\n\nFault space \"" + all.space + "\": " + all.description +
          ".\n\nOf the detected faults, " + share(total.listed, total.runs) +
          " are among the candidates, and the headlines leave out " + share(total.left_out, total.runs) + "; " +
          only_one(total) + " are the only place named. Of the faults that " +
          "were printed although no device failed, " +
          share(sums[run_kind::printed].listed, sums[run_kind::printed].runs) + " are listed. " +
          std::to_string(sums[run_kind::silent].runs) + " runs printed nothing about their fault.\n";
  page += page_legend;
  for (const auto &one : sections)
    page += section_text(one, kinds);
  return fold_page(page);
}

}  // namespace lab

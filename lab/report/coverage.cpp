#include "lab/report/coverage.h"

#include <algorithm>
#include <vector>

#include "lab/base/text.h"
#include "lab/campaign/fault_facts.h"
#include "lab/report/parts.h"
#include "lab/report/table.h"

namespace lab {
namespace {

std::string part_table(const part_counts &part) {
  const bool located = !counts_text(part.located).empty();
  std::string text =
      "### " + part.title +
      "\n\n| Fault | Reported by the right device | Blamed elsewhere | Ended early or hung | Unnoticed | "
      "Other contents damaged |" +
      (located ? " `post-locate` |" : "") + "\n|---|--:|--:|--:|--:|--:|" + (located ? "---|" : "") + "\n";
  for (const auto &kind : part.kinds) {
    text += "| `" + kind.title + "` | " + share(kind.right, kind.runs) + " |";
    for (const auto count : {kind.blamed, kind.ended, kind.unnoticed, kind.damaged})
      text += count == 0 ? " |" : " " + std::to_string(count) + " |";
    if (located) text += " " + counts_text(kind.located) + " |";
    text += "\n";
  }
  return text + "\n";
}

std::string group_text(const reason_group &group) {
  auto text =
      "- **" + std::to_string(group.runs.size()) + " " + title_of(*group.runs.front()) + "**: " + group.why() + ".\n  ";
  const auto patterns = group.patterns();
  for (const auto &pattern : patterns)
    text += (&pattern == &patterns.front() ? "`" : ", `") + pattern + "`";
  return text + "\n";
}

bool shows_nothing(const run_result &run) {
  return run.end == outcome::not_fired || run.end == outcome::harmless || run.end == outcome::refused;
}

bool is_told_elsewhere(const run_result &run) {
  return !is_unnoticed(run) && !shows_nothing(run);
}

std::string strata_text(const matrix &all) {
  std::string text;
  for (const auto &one : strata_of(all))
    text += "| " + one.stratum + " | " + one.title + " | " + share(one.count, one.of) + " | " +
            range_text(one.count, one.of) + " |\n";
  const std::string head = "## Rates\n\n| Stratum | Outcome | Runs | 95 % interval |\n|---|---|--:|--:|\n";
  return text.empty() ? "" : head + text + "\n";
}

std::string groups_text(const matrix &all, bool (*belongs)(const run_result &run)) {
  std::string text;
  for (const auto &group : groups_of(all))
    if (belongs(*group.runs.front())) text += group_text(group);
  return text.empty() ? "None.\n" : text;
}

}  // namespace

std::string matrix_to_coverage(const matrix &all) {
  const auto acted = std::ranges::count_if(all.runs, [](const auto &run) { return run.fired.value_or(0) > 0; });
  std::string text =
      "# What a PASS is worth\n\n"
      "Made by `post-campaign --coverage`, from runs of the unmodified program on the simulated board.\n"
      "The fault is proved to have acted in ";
  const auto located = located_sentence(all);
  text += share(static_cast<size_t>(acted), all.runs.size()) + " runs.\nOrigin: " + all.origin.text(false) +
          ".\n\nFault space \"" + all.space + "\": " + all.description + ".\n" + sentence_counts(all) +
          (located.empty() ? "" : "\n" + located) +
          "\nPercentages of different fault spaces are not comparable.\n\n## What POST finds\n\n";
  for (const auto &part : parts_of(all))
    text += part_table(part);
  text += strata_text(all);
  text +=
      "## What a PASS does not cover\n\nWith these faults every device passes:\n\n" + groups_text(all, is_unnoticed);
  text += "\nWhat the runs of this space cannot show:\n\n";
  for (const auto &sentence : limits_of_a_pass())
    text += "- " + std::string(sentence) + "\n";
  for (const auto &[fault, reason] : all.left_out)
    text += "- `" + fault + "` is not run: " + reason + ".\n";
  text += "\n## What fails, but does not name only the broken part\n\n" + groups_text(all, is_told_elsewhere);
  text += "\n## What shows nothing about POST\n\nFaults that broke nothing or never acted:\n\n" +
          groups_text(all, shows_nothing);
  return fold_page(text);
}

}  // namespace lab

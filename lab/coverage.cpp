#include "lab/coverage.h"

#include <algorithm>
#include <array>
#include <vector>

#include "lab/knowledge.h"
#include "lab/table.h"

namespace lab {
namespace {

// What is broken, by how the names of its faults begin.
struct part {
  std::string_view title;
  std::array<std::string_view, 3> prefixes;  // "" fits nothing
};

// clang-format off
constexpr std::array parts{std::to_array<part>({
    {"NVRAM",                                     {"nvram-"}},
    {"Flash",                                     {"flash-"}},
    {"Identity EEPROM and its bus",               {"sprom-corrupt", "eeprom-", "i2c-"}},
    {"Ethernet controllers",                      {"ethtool-"}},
    {"PCI functions",                             {"pci-missing", "pci-wrong-id"}},
    {"Bridge, operating system and its services", {"*"}},
})};
// clang-format on

bool belongs(std::string_view fault, const part &to) {
  return std::ranges::any_of(to.prefixes, [&](std::string_view prefix) {
    return prefix == "*" || (!prefix.empty() && fault.starts_with(prefix));
  });
}

const part &part_of(const run_result &run) {
  return *std::ranges::find_if(parts, [&](const part &one) { return belongs(run.what.fault, one); });
}

// What came of the runs of one kind of fault. Only damage may count beside another column.
struct kind_row {
  std::string_view name;
  size_t runs = 0;
  size_t right = 0;
  size_t blamed = 0;
  size_t ended = 0;
  size_t unnoticed = 0;
  size_t damaged = 0;
};

void add(const run_result &run, kind_row *kind) {
  ++kind->runs;
  if (run.right) ++kind->right;
  if (!run.right && run.verdict == "failed") ++kind->blamed;
  if (run.verdict == "none" && run.end != outcome::refused) ++kind->ended;
  if (is_unnoticed(run)) ++kind->unnoticed;
  if (run.end == outcome::damaged) ++kind->damaged;
}

std::vector<kind_row> kinds_of(const matrix &all, const part &of) {
  std::vector<kind_row> kinds;
  for (const auto &run : all.runs) {
    if (&part_of(run) != &of) continue;
    const auto name = std::string_view(run.what.fault).substr(0, run.what.fault.find(' '));
    auto kind = std::ranges::find(kinds, name, &kind_row::name);
    if (kind == kinds.end()) kind = kinds.insert(kinds.end(), {name});
    add(run, &*kind);
  }
  return kinds;
}

std::string part_table(const matrix &all, const part &of) {
  const auto kinds = kinds_of(all, of);
  if (kinds.empty()) return "";
  std::string text =
      "### " + std::string(of.title) +
      "\n\n| Fault | Reported by the right device | Blamed elsewhere | Ended early or hung | Unnoticed | "
      "Other contents damaged |\n|---|--:|--:|--:|--:|--:|\n";
  for (const auto &kind : kinds) {
    text += "| `" + std::string(kind.name) + "` | " + share(kind.right, kind.runs) + " |";
    for (const auto count : {kind.blamed, kind.ended, kind.unnoticed, kind.damaged})
      text += count == 0 ? " |" : " " + std::to_string(count) + " |";
    text += "\n";
  }
  return text + "\n";
}

std::string group_text(const reason_group &group) {
  auto text = "- **" + std::to_string(group.runs.size()) + " " + title_of(*group.runs.front()) +
              "**: " + (group.reason.empty() ? "reason not known" : group.reason) + ".\n  ";
  const auto patterns = group.patterns();
  for (const auto &pattern : patterns)
    text += (&pattern == &patterns.front() ? "`" : ", `") + pattern + "`";
  return text + "\n";
}

std::string groups_text(const matrix &all, bool unnoticed) {
  std::string text;
  for (const auto &group : groups_of(all))
    if (is_unnoticed(*group.runs.front()) == unnoticed) text += group_text(group);
  return text.empty() ? "None.\n" : text;
}

}  // namespace

std::string matrix_to_coverage(const matrix &all) {
  const auto acted = std::ranges::count_if(all.runs, [](const auto &run) { return run.fired.value_or(0) > 0; });
  std::string text =
      "# What a PASS is worth\n\nMade by `post-campaign --coverage`, from runs of the unmodified program on the "
      "simulated "
      "board.\nThe fault is proved to have acted in ";
  text += share(static_cast<size_t>(acted), all.runs.size()) + " runs.\n\nFault space \"" + all.space +
          "\": " + all.description + ".\n" + sentence_counts(all) +
          "\nPercentages of different fault spaces are not comparable.\n\n## What POST finds\n\n";
  for (const auto &one : parts)
    text += part_table(all, one);
  text += "## What a PASS does not cover\n\nFaults with which every device passes:\n\n" + groups_text(all, true);
  text += "\nWhat no run of this space can show:\n\n";
  for (const auto sentence : limits_of_a_pass())
    text += "- " + std::string(sentence) + "\n";
  for (const auto &[fault, reason] : all.left_out)
    text += "- `" + fault + "` is not run: " + reason + ".\n";
  text += "\n## What does not pass, but does not name the broken part alone\n\n" + groups_text(all, false);
  return text;
}

}  // namespace lab

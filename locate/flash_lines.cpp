#include "locate/flash_lines.h"

#include <algorithm>

#include "locate/flash_commands.h"
#include "locate/flash_reads.h"
#include "locate/flash_written.h"
#include "locate/line_finding.h"

namespace locate {
namespace {

using models::single_line_fault;

// How often words and commands must have the same answers before any word is written.
constexpr unsigned rounds_before_writing = 16;

// Faults that nothing has excluded yet.
using suspect_list = std::vector<single_line_fault>;

void blame(const line_fault_list &faults, std::vector<std::string> evidence, part_result *result) {
  auto what = line_finding({"the flash", "flash"}, faults);
  what.evidence = std::move(evidence);
  what.next += "; A1 is the lowest address pin of a chip with 16 bits";
  add_finding(std::move(what), result);
}

std::string count_text(size_t count, const char *what) {
  return std::to_string(count) + " " + what;
}

// Compares answers with what a healthy chip and each suspect would have answered. Suspects with other answers are none
// any more. Returns whether the chip is not healthy.
bool narrow(const flash_answers &seen, const flash_probe &probe, suspect_list *suspects) {
  std::erase_if(*suspects, [&](const auto &s) { return !agree(seen, foretell(probe, &s.fault)); });
  return !agree(seen, foretell(probe, nullptr));
}

// What is reported if the chip is not healthy by these answers.
void report(const suspect_list &left, std::vector<std::string> evidence, part_result *result) {
  line_fault_list faults;
  for (const auto &fault : left)
    faults.push_back(&fault);
  if (!left.empty()) return blame(faults, std::move(evidence), result);
  add_finding({.sentence = "The flash gives answers that no single fault of its lines explains.",
               .evidence = std::move(evidence),
               .next = "check its supply, reset and select lines, then replace it",
               .places = {"flash"}},
              result);
}

void report_unsteady(std::string sentence, std::string evidence, part_result *result) {
  add_finding({.sentence = std::move(sentence),
               .evidence = {std::move(evidence)},
               .intermittent = true,
               .next = "check supply and contacts, and repeat warm and cold",
               .places = {"flash"}},
              result);
}

// What went wrong while a sector was restored.
void report_restoring(const restoring &how, uint32_t sector, part_result *result) {
  const auto failed = count_text(how.failed, "erases or programs failed");
  if (how.lost == 0 && how.failed == 0) return;
  if (how.lost == 0)
    return report_unsteady("Erases or programs of the flash's sector at " + hex(sector, 7) + " fail at times.",
                           failed + " until it held its contents again", result);
  add_finding({.sentence = "The flash's sector at " + hex(sector, 7) +
                           " does not hold its contents: " + count_text(how.lost, how.lost == 1 ? "word." : "words."),
               .evidence = {"restored and read back several times; " + failed,
                            "if a line is bad at times, other sectors may have changed, too"},
               .next = "write the sector again from its source, then replace the chip",
               .places = {"flash"}},
              result);
}

// The suspects, whether the fault is before the command decoder or after it.
suspect_list all_suspects(const line_fault_list &lines) {
  suspect_list all;
  all.reserve(2 * lines.size());
  for (const bool commands : {true, false}) {
    for (const auto *const line : lines) {
      all.push_back(*line);
      all.back().fault.commands = commands;
    }
  }
  return all;
}

//   rounds  how often to ask again
bool ask_with_commands(flash_bus *bus, unsigned rounds, bool blank, suspect_list *suspects, part_result *result) {
  const auto seen = ask_commands(bus);
  const auto is_array = [](const flash_answer &a) { return a.got == a.array || a.got == no_answer; };
  // What foretells the answers is a fault that always acts.
  for (unsigned round = 0; round < rounds; ++round) {
    if (agree(seen, ask_commands(bus))) continue;
    report_unsteady("The flash answers commands in one way, then in another.",
                    count_text(seen.size(), "answers to commands, asked again"), result);
    return true;
  }
  if (!narrow(seen, ask_commands, suspects)) return false;
  std::vector<std::string> evidence{count_text(seen.size(), "answers to commands: query, autoselect, write buffer")};
  const bool silent = std::ranges::all_of(seen, is_array);
  if (silent) evidence.emplace_back("no command reaches it");
  if (seen.size() < foretell(ask_commands, nullptr).size())
    evidence.emplace_back("it takes no reset: it reads its array again after a power cycle");
  report(*suspects, std::move(evidence), result);
  if (silent && blank) result->findings.back().candidates.emplace_back("flash-silent");
  return true;
}

// The chip is not healthy by what a step answered: reports why, if it does so again.
void report_written(flash_bus *bus, const written_step &step, const flash_answers &seen, const suspect_list &suspects,
                    part_result *result) {
  constexpr int more = 2;
  auto words = count_text(step.words.size(), "words written at ") + hex(step.offset, 7);
  for (int i = 0; i < more; ++i) {
    restoring how;
    if (agree(seen, ask_written(bus, step, &how))) continue;
    if (how.lost != 0) report_restoring(how, step.offset & flash_sector_lines, result);
    return report_unsteady("Words written to the flash read in one way, then in another.", std::move(words), result);
  }
  const auto failed = std::ranges::count_if(seen, [](const auto &a) { return a.array == no_array && a.got == 0; });
  std::vector<std::string> evidence{std::move(words)};
  if (!suspects.empty())
    evidence.emplace_back("what these lines hide of the sector is lost: it was erased and restored through them");
  if (failed != 0) evidence.push_back(count_text(static_cast<size_t>(failed), "erases or programs failed"));
  report(suspects, std::move(evidence), result);
}

bool ask_with_writes(flash_bus *bus, suspect_list *suspects, part_result *result) {
  for (const auto &step : written_steps()) {
    restoring how;
    const auto seen = ask_written(bus, step, &how);
    const auto probe = [&step](flash_bus *chip) { return ask_written(chip, step, nullptr); };
    const bool bad = narrow(seen, probe, suspects);
    // Where a line is bad, its own finding says what was lost.
    if (!bad || how.lost != 0) report_restoring(how, step.offset & flash_sector_lines, result);
    if (bad) report_written(bus, step, seen, *suspects, result);
    if (bad || how.lost + how.failed != 0) return true;
  }
  return false;
}

}  // namespace

void locate_flash_lines(flash_bus *bus, unsigned rounds, bool write, part_result *result) {
  bus->write(0, cmd_reset);
  flash_reads reads(bus);
  reads.run();
  const unsigned again = write ? std::max(rounds, rounds_before_writing) : rounds;
  const auto unsteady = reads.read_again(again);
  if (!unsteady.empty())
    report_unsteady("Words of the flash change from read to read.",
                    count_text(unsteady.size(), "words differ, the first at ") + hex(unsteady[0], 7), result);
  const std::string words = count_text(reads.count(), "words of the array");
  auto suspects = all_suspects(reads.suspects());
  bool found = false;
  if (const auto proven = reads.proven(); !proven.empty()) {
    blame(proven, {words + " show it"}, result);
    found = true;
  }
  if (!found && !suspects.empty()) found = ask_with_commands(bus, again, reads.blank(), &suspects, result);
  // A line that is bad at times could lead an erase into another sector.
  if (!found && !suspects.empty() && write && unsteady.empty()) found = ask_with_writes(bus, &suspects, result);
  if (write && !unsteady.empty()) add_omission("Nothing was written: reads are not steady.", result);
  result->looked_at = {words};
  if (!found && !suspects.empty())
    result->not_looked_at.push_back(count_text(suspects.size(), "faults of its lines, which neither contents nor ") +
                                    (write ? "commands nor written words show" : "commands show (--write)"));
}

}  // namespace locate

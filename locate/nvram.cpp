// nvram.cpp: the probes of the battery-backed RAM.
#include <algorithm>
#include <span>

#include "locate/device.h"
#include "locate/journal.h"
#include "locate/nvram_cells.h"
#include "locate/nvram_lines.h"
#include "locate/parts.h"
#include "platform/mfgd/cmn_lib/diag_util/signal_hold.h"

namespace locate {
namespace {

constexpr auto nvrams = std::span(memories).first<3>();

// Restores what an interrupted run has left, in reverse order: of words at one place the first one's contents are its
// own. Each is written until it reads back. The journal goes only when all words do. Returns what it did, "" for
// nothing.
std::string restore_left(word_bus *ram, journal *kept, bool *done) {
  constexpr int tries = 8;
  const auto words = kept->left();
  *done = words.has_value();
  if (!*done) return "the journal cannot be read: " + os_error(kept->path());
  size_t lost = 0;
  for (auto one = words->rbegin(); one != words->rend(); ++one) {
    bool good = false;
    for (int i = 0; i < tries && !good && one->offset < ram->length(); ++i) {
      ram->write(one->offset, one->word);
      good = ram->read(one->offset) == one->word;
    }
    lost += good ? 0U : 1U;
  }
  *done = lost == 0;
  if (!*done)
    return "words of the journal " + kept->path() + " that do not read back: " + std::to_string(lost) + " of " +
           std::to_string(words->size()) + "; remove the journal if they may be lost";
  kept->finish();
  return words->empty() ? "" : "words restored after a run that ended early: " + std::to_string(words->size());
}

void measure(device *ram, unsigned instance, const settings &how, journal *kept, part_result *result) {
  kept->start();
  // A march writes much through lines that are bad at times.
  constexpr uint32_t rounds_before_march = 512;
  const auto rounds = how.cells ? std::max(how.rounds, rounds_before_march) : how.rounds;
  std::optional<seen_cell> cell;
  const bool lines_good = locate_lines(ram, instance, rounds, kept, result, how.cells ? &cell : nullptr);
  result->looked_at.push_back("every address and data line" +
                              (rounds == 1 ? "" : ", " + std::to_string(rounds) + " times"));
  std::vector<uint32_t> failed;
  if (lines_good && how.cells)
    failed = locate_cells(ram, instance, how, kept, result);
  else if (how.cells)
    add_omission("The cells were not tested: the lines gave wrong answers.", result);
  else
    result->not_looked_at.emplace_back("cells (--cells)");
  // What the march does not see again was seen nevertheless.
  if (cell && std::ranges::find(failed, cell->offset / 2) == failed.end()) {
    if (result->reason.empty()) cell->what.next = "repeat the test: in the test of the cells this word did not fail";
    add_finding(std::move(cell->what), result);
  }
  if (!kept->error().empty())
    result->not_looked_at.push_back("what a power cut would leave, as there is no whole journal: " + kept->error());
  kept->finish();
}

}  // namespace

part_result probe_nvram(unsigned instance, const settings &how) {
  part_result result;
  device ram;
  if (!ram.open(nvrams[instance], how, &result)) return result;
  // A signal may end the process only when neither words nor a journal are left.
  const signal_hold::scope until_restored;
  journal kept(how.state, nvrams[instance].part);
  bool restored = true;
  auto text = restore_left(&ram, &kept, &restored);
  if (restored) {
    if (!text.empty()) result.looked_at.push_back(std::move(text));
    measure(&ram, instance, how, &kept, &result);
  } else {
    add_omission("Its contents come first: " + text + ".", &result);
  }
  result.accesses = ram.accesses();
  return result;
}

bool restore_interrupted(const settings &how, std::string *text) {
  bool all = true;
  for (unsigned instance = 0; instance < nvrams.size(); ++instance) {
    const std::string part = nvrams[instance].part;
    journal kept(how.state, part);
    if (const auto words = kept.left(); words && words->empty()) continue;
    part_result result;
    device ram;
    bool restored = false;
    std::string did;
    if (ram.open(nvrams[instance], how, &result)) {
      const signal_hold::scope until_restored;
      did = restore_left(&ram, &kept, &restored);
    } else {
      did = "words in its journal may not be restored yet: " + result.reason;
    }
    all &= restored;
    if (!did.empty()) *text += part + ": " + did + "\n";
  }
  return all;
}

}  // namespace locate

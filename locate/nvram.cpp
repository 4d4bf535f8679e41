// nvram.cpp: the probes of the battery-backed RAM.
#include "locate/device.h"
#include "locate/journal.h"
#include "locate/nvram_cells.h"
#include "locate/nvram_lines.h"
#include "locate/parts.h"
#include "platform/mfgd/cmn_lib/diag_util/signal_hold.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"

namespace locate {
namespace {

constexpr uint32_t region_bytes = 0x8000;

// clang-format off
constexpr std::array nvrams{std::to_array<memory_row>({
    {"nvram0", RTC_NVRAM_DEV_NAME, 0, 2, region_bytes},
    {"nvram1", RTC_NVRAM_DEV_NAME, 1, 3, region_bytes},
    {"nvram2", RTC_NVRAM_DEV_NAME, 2, 4, region_bytes},
})};
// clang-format on

// Restores what an interrupted run has left, in reverse order: of words at one place the first one's contents are its
// own. Returns how many words it had.
size_t restore_left(word_bus *ram, journal *kept) {
  const auto words = kept->left();
  const signal_hold::scope until_restored;
  for (auto one = words.rbegin(); one != words.rend(); ++one)
    if (one->offset < ram->length()) ram->write(one->offset, one->word);
  kept->finish();
  return words.size();
}

part_result probe(unsigned instance, const settings &how) {
  part_result result;
  device ram;
  if (!ram.open(nvrams[instance], how, &result)) return result;
  journal kept(how.state, nvrams[instance].part);
  if (const auto restored = restore_left(&ram, &kept); restored != 0)
    result.looked_at.push_back("the contents of " + std::to_string(restored) +
                               " words, restored after a run that ended early");
  if (const auto wrong = kept.start(); !wrong.empty())
    result.not_looked_at.push_back("what a power cut would leave, as there is no journal: " + wrong);
  const bool lines_good = locate_lines(&ram, instance, how.rounds, &kept, &result);
  result.looked_at.push_back("every address and data line" +
                             (how.rounds == 1 ? "" : ", " + std::to_string(how.rounds) + " times"));
  if (lines_good && how.cells) {
    (void)kept.start();
    locate_cells(&ram, instance, how, &kept, &result);
  } else {
    result.not_looked_at.emplace_back(how.cells ? "cells, as lines are bad" : "cells (--cells)");
  }
  kept.finish();
  result.accesses = ram.accesses();
  return result;
}

}  // namespace

std::string restore_interrupted(const settings &how) {
  std::string text;
  for (unsigned instance = 0; instance < nvrams.size(); ++instance) {
    const std::string part = nvrams[instance].part;
    journal kept(how.state, part);
    if (kept.left().empty()) continue;
    part_result result;
    device ram;
    text += part + ": ";
    if (!ram.open(nvrams[instance], how, &result))
      text += "words of a run that ended early are not restored yet. " + result.reason + "\n";
    else
      text += std::to_string(restore_left(&ram, &kept)) + " words restored after a run that ended early\n";
  }
  return text;
}

part_result probe_nvram0(const settings &how) {
  return probe(0, how);
}
part_result probe_nvram1(const settings &how) {
  return probe(1, how);
}
part_result probe_nvram2(const settings &how) {
  return probe(2, how);
}

}  // namespace locate

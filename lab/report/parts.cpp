#include "lab/report/parts.h"

#include <algorithm>

#include "lab/base/fault_list.h"

namespace lab {
namespace {

std::string part_of(const std::string &kind) {
  const auto *const row = sim::fault_named(kind);
  const bool is_of_lines = kind.find("-data-") != std::string::npos || kind.find("-addr-") != std::string::npos;
  const bool is_of_cells = kind.find("-cell-") != std::string::npos;
  const std::string piece = is_of_lines ? " lines" : is_of_cells ? " cells" : "";
  switch (row == nullptr ? sim::fault_part::service : row->part) {
    case sim::fault_part::nvram:
      return "NVRAM" + piece;
    case sim::fault_part::flash:
      return "Flash" + (piece.empty() ? " chip" : piece);
    case sim::fault_part::ethernet:
      return "Ethernet controllers";
    case sim::fault_part::i2c:
    case sim::fault_part::eeprom:
    case sim::fault_part::expander:
      return "Identity EEPROM and its bus";
    case sim::fault_part::service:
      return kind.starts_with("pci-missing") || kind.starts_with("pci-wrong")
                 ? "PCI functions"
                 : "Bridge, operating system and its services";
  }
  return "";
}

part_counts &entry(std::vector<part_counts> *list, const std::string &title) {
  const auto found = std::ranges::find(*list, title, &part_counts::title);
  if (found != list->end()) return *found;
  auto &added = list->emplace_back();
  added.title = title;
  return added;
}

void add(const run_result &run, part_counts *to) {
  ++to->runs;
  if (run.right) ++to->right;
  if (!run.right && run.verdict == "failed") ++to->blamed;
  if (run.verdict == "none" && run.end != outcome::refused) ++to->ended;
  if (is_unnoticed(run)) ++to->unnoticed;
  if (run.end == outcome::damaged) ++to->damaged;
  if (run.located) ++to->located.at(static_cast<size_t>(run.located->answer));
}

}  // namespace

std::vector<part_counts> parts_of(const matrix &all) {
  std::vector<part_counts> parts;
  for (const auto &run : all.runs) {
    if (run.what.fault.empty()) continue;
    const auto kind = kind_of(run.what);
    auto &part = entry(&parts, part_of(kind));
    add(run, &part);
    add(run, &entry(&part.kinds, kind));
  }
  return parts;
}

}  // namespace lab

// devices.cpp: lines of the SEEPROM, GigE and PCIe rows.
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <map>

#include "lab/base/text.h"
#include "lab/explain/row_lines.h"
#include "lab/explain/texts.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"
#include "post/dorvan/cards.h"

namespace lab {
namespace {

std::string list_of(uint32_t value) {
  return number_list(std::array{value}, true);
}

// ---- SEEPROM

// Both images lie in one EEPROM.
struct image_row {
  std::string_view label;  // how block labels begin
  std::string_view name;   // of the image in the list of faults
  std::string_view part;
  uint32_t base;  // in the EEPROM
  std::span<const sprom_block_t> blocks;
};
constexpr image_row images[] = {
    {"Supervisor ", "sup", "supervisor SPROM", 0, sprom_blocks_sup},
    {"Backplane ", "bp", "backplane SPROM", 0x1000, sprom_blocks_bp},
};

struct block_name {
  std::string_view label;  // behind the image's
  std::string_view key;    // in the list of faults
  std::string_view text;
};
constexpr block_name block_names[] = {
    {"Common Header", "header", "common header"}, {"Main", "main", "main block"},
    {"Extra Sensor", "sensor", "sensor block"},   {"WWN", "wwn", "WWN block"},
    {"License", "license", "license block"},
};

enum class field : uint8_t { signature, length, checksum };
constexpr std::pair<std::string_view, field> field_names[] = {
    {"signature", field::signature}, {"length", field::length}, {"checksum", field::checksum}};

struct bad_field {
  uint32_t found;
  uint32_t expected;

  [[nodiscard]] uint32_t differs() const { return found ^ expected; }
};
using bad_block = std::map<field, bad_field>;

// One wrong byte that prints all that is wrong with a block.
struct wrong_byte {
  std::vector<uint32_t> offsets;  // in the block, any of them
  std::string bits;               // that differ
  std::string where;
  size_t places;
  bool may_differ;
};

// A wrong signature or length shows the byte; a wrong sum shows none.
std::optional<wrong_byte> byte_of(const bad_block &bad, uint32_t length) {
  const auto one = [](uint32_t offset, uint32_t bits) {
    return wrong_byte{{offset}, list_of(bits), "byte " + std::to_string(offset) + " of the block", 1, false};
  };
  const auto signature = bad.find(field::signature);
  const auto size = bad.find(field::length);
  if (signature != bad.end()) {
    const auto differs = signature->second.differs();
    if (size != bad.end() || ((differs & 0xFF00) != 0 && (differs & 0xFF) != 0)) return std::nullopt;
    return differs > 0xFF ? one(SPROM_BLK_SIGNATURE, differs >> 8) : one(SPROM_BLK_SIGNATURE + 1, differs);
  }
  if (size != bad.end()) return one(SPROM_BLK_LENGTH, size->second.differs() & 0xFF);
  // Those of the signature and the length print a line of their own, which can be lost.
  wrong_byte other{{}, "*", "a byte of this block, or of its checksum", length - SPROM_BLK_CHECKSUM + 1, true};
  for (uint32_t offset = 0; offset < length; ++offset)
    other.offsets.push_back(offset);
  return other;
}

void add_byte(const image_row &image, std::string_view key, const sprom_block_t &block, const bad_block &bad,
              finding *found) {
  const auto byte = byte_of(bad, block.length);
  if (!byte) return;
  auto in_eeprom = byte->offsets;
  for (auto &offset : in_eeprom)
    offset += image.base + block.offset;
  const auto of_byte = [&](const std::vector<uint32_t> &offsets) {
    return " offset=" + number_list(offsets, true) + " xor=" + byte->bits;
  };
  fault_group groups[] = {group_of("eeprom-corrupt bus=1 addr=0x52" + of_byte(in_eeprom)),
                          group_of("sprom-corrupt image=" + std::string(image.name) + " block=" + std::string(key) +
                                   of_byte(byte->offsets))};
  for (auto &group : groups) {
    group.where = byte->where;
    group.how = "differs";
    group.may_differ = byte->may_differ;
    group.places = byte->places;
    found->faults.push_back(std::move(group));
  }
}

std::string what_of(std::string_view block, const bad_block &bad) {
  std::string text;
  for (const auto &[name, key] : field_names) {
    const auto found = bad.find(key);
    if (found == bad.end()) continue;
    char values[80];
    (void)std::snprintf(values, sizeof values, " 0x%04x where 0x%04x is right", found->second.found,
                        found->second.expected);
    text += (text.empty() ? "" : ", ") + std::string(name) + values;
  }
  return std::string(block) + " damaged: " + text;
}

// The label's image and block, or null.
const block_name *block_of(std::string_view label, const image_row **image, const sprom_block_t **layout) {
  for (const auto &one : images) {
    for (const auto &block : one.blocks) {
      if (!label.ends_with(block.label)) continue;
      *image = &one;
      *layout = &block;
      const auto rest = std::string_view(block.label).substr(one.label.size());
      return std::ranges::find(block_names, rest, &block_name::label);
    }
  }
  return nullptr;
}

struct open_block {
  const image_row *image = nullptr;
  const sprom_block_t *layout = nullptr;
  const block_name *name = nullptr;
  bad_block bad;
  finding found;
};

// The line's block with what is wrong in it, added to those that are open.
void read_block_line(row_lines *lines, size_t line, std::vector<open_block> *blocks) {
  for (const auto &[name, key] : field_names) {
    const auto text = " block " + std::string(name) + " mismatch.";
    const auto at = lines->text(line).find(text);
    if (at == std::string::npos) continue;
    const auto values = find_text("Found 0x{found}, expected 0x{expected}.", lines->text(line).substr(at));
    open_block one;
    one.name = block_of(std::string_view(lines->text(line)).substr(0, at), &one.image, &one.layout);
    if (!values || one.name == nullptr) continue;
    auto same = std::ranges::find(*blocks, one.layout, &open_block::layout);
    if (same == blocks->end()) same = blocks->insert(blocks->end(), std::move(one));
    same->bad[key] = {number_of(*values, "found", 16).value_or(0), number_of(*values, "expected", 16).value_or(0)};
    take_line(lines, line, &same->found);
  }
}

// ---- GigE

struct sub_test {
  std::string_view text;
  std::string_view key;  // in the list of faults
};
constexpr sub_test sub_tests[] = {
    {"Register test", "register"}, {"Eeprom test", "eeprom"}, {"Interrupt test", "interrupt"},
    {"Loopback test", "loopback"}, {"Link test", "link"},
};

std::string_view last_word(std::string_view text) {
  const auto end = text.find_last_not_of(" \t");
  if (end == std::string_view::npos) return {};
  text = text.substr(0, end + 1);
  const auto start = text.find_last_of(" \t");
  return start == std::string_view::npos ? text : text.substr(start + 1);
}

void add_sub_test(const std::string &line, finding *found) {
  const auto *const test =
      std::ranges::find_if(sub_tests, [&](const sub_test &one) { return line.find(one.text) != std::string::npos; });
  const auto code = std::string(last_word(line));
  if (test == std::end(sub_tests) || code == "0") return;
  const std::string key(test->key);
  found->what += (found->what.empty() ? "" : ", ") + key + " sub-test failed (" + code + ")";
  auto group = group_of("ethtool-fail port=" + found->part + " test=" + key + " code=" + code);
  group.where = found->part;
  group.how = "its " + key + " sub-test fails";
  found->faults.push_back(std::move(group));
}

// ---- PCIe

constexpr std::string_view missing_line = "## Failed: PCI device - ";
constexpr std::string_view position_line = "(bus:{bus}, dev:{dev}, func:{func}, vendId:{vendor}, devId:{device}";

std::string function_text(uint32_t bus, uint32_t dev, uint32_t func) {
  char text[48];
  (void)std::snprintf(text, sizeof text, "PCI function %02x:%02x.%u", bus, dev, func);
  return text;
}

std::string ids_text(uint32_t vendor, uint32_t device) {
  char text[24];
  (void)std::snprintf(text, sizeof text, "%04X:%04X", vendor, device);
  return text;
}

void add_function(const text_fields &fields, finding *found) {
  const auto value = [&](std::string_view name) { return number_of(fields, name, 16).value_or(0); };
  found->part = function_text(value("bus"), value("dev"), value("func"));
  found->what = "missing, or not " + ids_text(value("vendor"), value("device")) + found->what;
  const auto place =
      " bus=" + list_of(value("bus")) + " dev=" + list_of(value("dev")) + " func=" + list_of(value("func"));
  constexpr std::pair<std::string_view, std::string_view> wrong_ids[] = {
      {" device=0..0xFFFF vendor=*", "has another device id"}, {" vendor=0..0xFFFF device=*", "has another vendor id"}};
  found->faults.push_back(group_of("pci-missing" + place));
  found->faults.back().how = "not in the PCI list";
  for (const auto &[ids, how] : wrong_ids) {
    found->faults.push_back(group_of("pci-wrong-id" + place + std::string(ids)));
    found->faults.back().how = how;
  }
  for (auto &group : found->faults)
    group.where = found->part;
}

// The functions that a card must have with these change bits and not with those of its other revision.
std::vector<pci_dev_tbl_entry> only_with(const dorvan_card_t &card, uint64_t change_bits) {
  const auto other = dorvan_pci_functions(card, change_bits == 0 ? 1 : 0);
  std::vector<pci_dev_tbl_entry> functions;
  for (const auto &one : dorvan_pci_functions(card, change_bits)) {
    const bool in_both = std::ranges::any_of(other, [&](const pci_dev_tbl_entry &row) {
      return row.bus == one.bus && row.dev == one.dev && row.func == one.func && row.vendor == one.vendor &&
             row.device == one.device;
    });
    if (!in_both) functions.push_back(one);
  }
  return functions;
}

void join(const std::vector<finding *> &missing, finding *cause, std::vector<finding> *findings) {
  cause->what += "; so functions of another revision are reported missing:";
  for (auto *const one : missing) {
    cause->what += one->part.substr(one->part.rfind(' '));
    cause->evidence.insert(cause->evidence.end(), one->evidence.begin(), one->evidence.end());
    one->part.clear();
  }
  std::erase_if(*findings, [](const finding &one) { return one.part.empty(); });
}

}  // namespace

std::vector<finding> explain_seeprom(row_lines *lines) {
  std::vector<open_block> blocks;
  for (size_t line = 0; line < lines->count(); ++line)
    read_block_line(lines, line, &blocks);
  std::vector<finding> findings;
  for (auto &block : blocks) {
    auto &found = block.found;
    found.part = block.image->part;
    found.what = what_of(block.name->text, block.bad);
    add_byte(*block.image, block.name->key, *block.layout, block.bad, &found);
    if (blocks.size() > 1) found.what += "; other blocks are damaged, too";
    findings.push_back(std::move(found));
  }
  return findings;
}

// Lines of other programs may be between those of ethtool.
std::vector<finding> explain_gige(row_lines *lines) {
  constexpr std::string_view of_ethtool[] = {"The test result is ", "The test extra info", "(offline)", "(on/offline)"};
  finding found;
  for (size_t line = 0; line < lines->count(); ++line) {
    const auto &text = lines->text(line);
    const auto fields = find_text("ethtool -t eth{n}", text);
    const bool starts = fields && found.part.empty();
    if (starts) found.part = "eth" + fields->at("n");
    const auto is_in_it = [&](std::string_view part) { return text.find(part) != std::string::npos; };
    if (!starts && (found.part.empty() || std::ranges::none_of(of_ethtool, is_in_it))) continue;
    take_line(lines, line, &found);
    add_sub_test(text, &found);
  }
  if (found.part.empty()) return {};
  if (found.what.empty()) found.what = "ethtool reports FAIL and shows no sub-test";
  return {std::move(found)};
}

// A function takes two lines, the second with its position. The first by itself shows only its name.
std::vector<finding> explain_pcie(row_lines *lines) {
  std::vector<finding> findings;
  finding open;
  const auto close = [&] {
    if (!open.evidence.empty()) findings.push_back(std::move(open));
    open = {};
  };
  for (size_t line = 0; line < lines->count(); ++line) {
    const auto &text = lines->text(line);
    const auto at = text.find(missing_line);
    if (at != std::string::npos) {
      close();
      open.part = "a PCI function";
      open.what = " (" + text.substr(at + missing_line.size()) + ")";
      take_line(lines, line, &open);
    }
    const auto fields = find_text(position_line, text);
    if (!fields) continue;
    if (at == std::string::npos) take_line(lines, line, &open);
    add_function(*fields, &open);
    if (!lines->row_failed) open.what += "; no device's result shows it";
    close();
  }
  if (!open.evidence.empty()) open.what = "missing, or another" + open.what;
  close();
  return findings;
}

void join_misread_revision(uint64_t change_bits, bool all_seen, std::vector<finding> *findings) {
  const auto cause = std::ranges::find_if(
      *findings, [](const finding &one) { return one.part == "identity EEPROM" || one.part == "supervisor SPROM"; });
  if (cause == findings->end()) return;
  for (const auto &card : dorvan_cards) {
    std::vector<finding *> missing;
    const auto functions = only_with(card, change_bits);
    for (const auto &row : functions) {
      const auto found = std::ranges::find_if(*findings, [&](const finding &one) {
        return one.part == function_text(row.bus, row.dev, row.func) &&
               one.what.find(ids_text(row.vendor, row.device)) != std::string::npos;
      });
      if (found != findings->end()) missing.push_back(&*found);
    }
    if (missing.empty() || (all_seen && missing.size() < functions.size())) continue;
    if (all_seen) return join(missing, &*cause, findings);
    for (auto *const one : missing) {
      if (!one->faults.front().may_differ) one->what += "; or another revision has it";
      for (auto &group : one->faults)
        group.may_differ = true;
    }
  }
}

}  // namespace lab

// explain_devices.cpp: lines of the SEEPROM, GigE and PCIe rows.
#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <map>

#include "lab/explain_readers.h"
#include "lab/explain_texts.h"
#include "lab/text.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"

namespace lab {
namespace {

uint32_t number(const text_fields &fields, std::string_view name, int base) {
  const auto found = fields.find(name);
  std::string_view text = found == fields.end() ? std::string_view{} : found->second;
  return take_number<uint32_t>(&text, base).value_or(0);
}

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
};

// A byte that is wrong: where it can be, and by which bits it can differ.
struct wrong_byte {
  std::vector<uint32_t> offsets;  // in the block
  std::vector<uint32_t> bits;     // exclusive or
};

// A 16-bit field of which one byte differs.
std::optional<wrong_byte> in_field(uint32_t offset, const bad_field &bad) {
  const uint32_t differs = bad.found ^ bad.expected;
  if ((differs & 0xFF00) != 0 && (differs & 0xFF) != 0) return std::nullopt;
  const bool low = (differs & 0xFF) != 0;
  return wrong_byte{{offset + (low ? 1 : 0)}, {low ? differs : differs >> 8}};
}

// Whether flipping these bits of some byte adds this much to it.
bool can_add(uint32_t bits, int32_t sum) {
  for (uint32_t byte = 0; byte < 256; ++byte)
    if (static_cast<int32_t>(byte ^ bits) - static_cast<int32_t>(byte) == sum) return true;
  return false;
}

// A byte of the block's body whose change makes the sum what it is. The other fields are as they should be.
std::optional<wrong_byte> in_body(uint32_t length, const bad_field &sum) {
  auto added = static_cast<int32_t>(sum.expected) - static_cast<int32_t>(sum.found);
  if (added > 0x8000) added -= 0x10000;
  if (added < -0x8000) added += 0x10000;
  wrong_byte byte;
  for (uint32_t bits = 1; bits < 256; ++bits)
    if (can_add(bits, added)) byte.bits.push_back(bits);
  for (uint32_t offset = SPROM_BLK_VERSION; offset < length; ++offset)
    if (offset != SPROM_BLK_LENGTH && (offset < SPROM_BLK_CHECKSUM || offset >= SPROM_BLK_CHECKSUM + 2))
      byte.offsets.push_back(offset);
  return byte.bits.empty() ? std::nullopt : std::optional(byte);
}

using bad_block = std::map<field, bad_field>;

// The single bytes that explain all that is wrong with a block.
std::vector<wrong_byte> bytes_of(const bad_block &bad, uint32_t length) {
  std::vector<wrong_byte> bytes;
  const auto add = [&bytes](const std::optional<wrong_byte> &byte) {
    if (byte) bytes.push_back(*byte);
  };
  const auto has = [&bad](field one) { return bad.contains(one); };
  if (has(field::signature) && has(field::length)) return {};
  if (has(field::signature)) {
    add(in_field(SPROM_BLK_SIGNATURE, bad.at(field::signature)));
  } else if (has(field::length)) {
    const auto &one = bad.at(field::length);
    bytes.push_back({{SPROM_BLK_LENGTH}, {(one.found ^ one.expected) & 0xFF}});
  } else {
    add(in_field(SPROM_BLK_CHECKSUM, bad.at(field::checksum)));
    add(in_body(length, bad.at(field::checksum)));
  }
  return bytes;
}

void add_bytes(const image_row &image, std::string_view key, const sprom_block_t &block, const bad_block &bad,
               finding *found) {
  for (const auto &byte : bytes_of(bad, block.length)) {
    const auto bits = number_list(byte.bits, true);
    std::vector<uint32_t> in_eeprom;
    for (const auto offset : byte.offsets)
      in_eeprom.push_back(image.base + block.offset + offset);
    fault_group groups[] = {
        group_named("eeprom-corrupt",
                    {{"bus", "1"}, {"addr", "0x52"}, {"offset", number_list(in_eeprom, true)}, {"xor", bits}}),
        group_named("sprom-corrupt", {{"image", std::string(image.name)},
                                      {"block", std::string(key)},
                                      {"offset", number_list(byte.offsets, true)},
                                      {"xor", bits}}),
    };
    for (auto &group : groups) {
      group.count = byte.offsets.size() * byte.bits.size();
      group.places = byte.offsets.size();
      group.contents = byte.bits.size() * byte.offsets.size() > 1;
      const bool one = byte.offsets.size() == 1;
      group.where = one ? "byte " + list_of(byte.offsets[0]) + " of the block" : "a byte of the block's body";
      group.how = one ? "differs by " + list_of(byte.bits[0]) : "differs so that the sum does by as much";
      found->faults.push_back(std::move(group));
    }
    found->places += byte.offsets.size();
  }
  found->sure_places = count_places(found->faults, true);
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
void read_block_line(device_lines *lines, size_t line, std::vector<open_block> *blocks) {
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
    same->bad[key] = {number(*values, "found", 16), number(*values, "expected", 16)};
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

void add_sub_tests(const device_lines &lines, const std::string &port, finding *found) {
  std::vector<std::pair<std::string_view, std::string>> failed;
  for (const auto &line : found->evidence) {
    const auto *const test = std::ranges::find_if(
        sub_tests, [&](const sub_test &one) { return line.text.find(one.text) != std::string::npos; });
    const auto code = last_word(line.text);
    if (test != std::end(sub_tests) && code != "0") failed.emplace_back(test->key, code);
  }
  found->part = port.empty() ? lines.part : "eth" + port;
  for (const auto &[key, code] : failed) {
    found->what += (found->what.empty() ? "" : ", ") + std::string(key) + " sub-test failed (" + code + ")";
    if (failed.size() > 1) continue;
    auto group = group_named("ethtool-fail", {{"port", found->part}, {"test", std::string(key)}, {"code", code}});
    group.where = found->part;
    group.how = "its " + std::string(key) + " sub-test fails";
    found->faults.push_back(std::move(group));
    found->places = found->sure_places = 1;
  }
  if (failed.empty()) found->what = "ethtool says FAIL, and no sub-test that it shows";
}

// ---- PCIe

constexpr std::string_view missing_line = "## Failed: PCI device - ";
constexpr std::string_view position_line = "(bus:{bus}, dev:{dev}, func:{func}, vendId:{vendor}, devId:{device}";

std::string two_digits(uint32_t value, char end) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "%02x%c", value, end);
  return text;
}

void add_function(const text_fields &fields, finding *found) {
  const auto bus = number(fields, "bus", 16);
  const auto dev = number(fields, "dev", 16);
  const auto func = number(fields, "func", 16);
  found->part = "PCI function " + two_digits(bus, ':') + two_digits(dev, '.') + std::to_string(func);
  const std::vector<std::pair<std::string, std::string>> place{
      {"bus", list_of(bus)}, {"dev", list_of(dev)}, {"func", list_of(func)}};
  found->faults.push_back(group_named("pci-missing", place));
  found->faults.back().how = "not in the PCI list";
  for (const auto &keys : {std::vector{"device"}, std::vector{"vendor"}, std::vector{"vendor", "device"}}) {
    auto values = place;
    for (const auto *const key : keys)
      values.emplace_back(key, "0..0xFFFF");
    found->faults.push_back(group_named("pci-wrong-id", std::move(values)));
    found->faults.back().count = keys.size() == 1 ? 0x10000 : 0x100000000;
    found->faults.back().how = "answers with another identity";
  }
  for (auto &group : found->faults)
    group.where = found->part;
  found->places = found->sure_places = 1;
}

}  // namespace

std::vector<finding> read_seeprom(device_lines *lines) {
  std::vector<open_block> blocks;
  for (size_t line = 0; line < lines->count(); ++line)
    read_block_line(lines, line, &blocks);
  std::vector<finding> findings;
  for (auto &block : blocks) {
    auto &found = block.found;
    found.part = block.image->part;
    found.what = what_of(block.name->text, block.bad);
    add_bytes(*block.image, block.name->key, *block.layout, block.bad, &found);
    if (blocks.size() > 1) found.what += "; more than one block is";
    findings.push_back(std::move(found));
  }
  return findings;
}

std::vector<finding> read_gige(device_lines *lines) {
  finding found;
  std::optional<std::string> port;
  for (size_t line = 0; line < lines->count(); ++line) {
    const auto fields = find_text("ethtool -t eth{n}", lines->text(line));
    if (fields && !port) port = fields->at("n");
    if (port) take_line(lines, line, &found);
  }
  if (!port) return {};
  add_sub_tests(*lines, *port, &found);
  return {std::move(found)};
}

// A function takes two lines, the second with its position. A first one alone tells no more than the name.
std::vector<finding> read_pcie(device_lines *lines) {
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
      open.what = "missing, or with another identity (" + text.substr(at + missing_line.size()) + ")";
      take_line(lines, line, &open);
    }
    const auto fields = find_text(position_line, text);
    if (!fields) continue;
    if (at == std::string::npos) take_line(lines, line, &open);
    add_function(*fields, &open);
    const auto name = open.what.substr(std::min(open.what.find(" ("), open.what.size()));
    open.what = "missing, or with another identity than " + fields->at("vendor") + ":" + fields->at("device") + name;
    if (!lines->row_failed) open.what += "; no device's result shows it";
    close();
  }
  close();
  return findings;
}

}  // namespace lab

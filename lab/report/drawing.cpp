#include "lab/report/drawing.h"

#include <algorithm>
#include <array>
#include <compare>
#include <map>
#include <optional>

#include "lab/base/fault_list.h"
#include "lab/base/markup.h"
#include "lab/base/text.h"

namespace lab {
namespace {

// A memory: the faults of its lines begin with `prefix`, and of several instances name this one.
struct memory {
  std::string_view title;
  std::string_view prefix;
  std::string_view instance;
  unsigned first_address;
  unsigned last_address;
};

// clang-format off
constexpr std::array memories{std::to_array<memory>({
    // title   prefix   instance  address lines, as bits of the byte offset
    {"NVRAM 0", "nvram", "0",     1, 14},
    {"NVRAM 1", "nvram", "1",     1, 14},
    {"NVRAM 2", "nvram", "2",     1, 14},
    {"Flash",   "flash", "",      1, 25},
})};
// clang-format on
constexpr unsigned data_lines = 16;

// A line, or a pair of lines, and a level.
struct line_fault {
  char bus;  // 'A' or 'D'
  unsigned line;
  unsigned other;  // the same as `line` for a stuck one
  unsigned level;
  friend auto operator<=>(const line_fault &, const line_fault &) = default;
};
using line_faults = std::map<line_fault, const run_result *>;

// Faults with parameters beyond the line's are other faults of the same line.
bool is_plain(const fault_text &fault, bool shorted) {
  constexpr std::array<std::string_view, 2> stuck_keys{"line", "level"};
  constexpr std::array<std::string_view, 3> short_keys{"line", "other", "wins"};
  return std::ranges::all_of(fault.values, [&](const auto &pair) {
    if (pair.first == "instance") return true;
    return shorted ? std::ranges::find(short_keys, pair.first) != short_keys.end()
                   : std::ranges::find(stuck_keys, pair.first) != stuck_keys.end();
  });
}

std::optional<line_fault> line_of(const fault_text &fault, const memory &of) {
  auto name = std::string_view(fault.name);
  if (!take(&name, of.prefix) || fault.find("instance").value_or("") != of.instance) return std::nullopt;
  const bool data = name.starts_with("-data-");
  const bool shorted = name.ends_with("-short");
  if (!data && !name.starts_with("-addr-")) return std::nullopt;
  if ((!shorted && !name.ends_with("-stuck")) || !is_plain(fault, shorted)) return std::nullopt;
  auto line = static_cast<unsigned>(fault.number("line"));
  auto other = shorted ? static_cast<unsigned>(fault.number("other")) : line;
  if (line > other) std::swap(line, other);
  return line_fault{data ? 'D' : 'A', line, other, static_cast<unsigned>(fault.number(shorted ? "wins" : "level"))};
}

line_faults faults_of(const matrix &all, const memory &of) {
  line_faults faults;
  for (const auto &run : all.runs)
    if (const auto line = line_of(parse_fault_text(run.what.fault), of)) faults.emplace(*line, &run);
  return faults;
}

std::string name_of_line(char bus, unsigned line) {
  return bus + std::to_string(line);
}

markup tooltip(const line_fault &fault, const run_result *run) {
  auto text = name_of_line(fault.bus, fault.line);
  if (fault.line == fault.other)
    text += " stuck at " + std::to_string(fault.level);
  else
    text += " shorted with " + name_of_line(fault.bus, fault.other) + ", " + std::to_string(fault.level) + " wins";
  return element("title", text + ": " + (run == nullptr ? "not run" : title_of(*run)));
}

std::string class_of(const run_result *run) {
  return run == nullptr ? "o-none" : style_class(*run);
}

const run_result *find(const line_faults &faults, const line_fault &fault) {
  const auto found = faults.find(fault);
  return found == faults.end() ? nullptr : found->second;
}

// ---- the chip with its pins

constexpr int pin_height = 22;
constexpr int top = 42;
constexpr int box = 18;         // a level of a pin
constexpr int box_step = 24;    // from the lower level to the higher one
constexpr int left_box = 38;    // the lower level of an address pin
constexpr int right_box = 220;  // of a data pin
constexpr int chip_left = 100;
constexpr int chip_right = 200;
constexpr int width = 300;

markup draw_level(const line_faults &faults, const line_fault &fault, int x, int y) {
  const auto *const run = find(faults, fault);
  const auto square = element("rect", {{"x", x}, {"y", y - box / 2}, {"width", box}, {"height", box}, {"rx", 3}});
  const auto mark = element("text", {{"x", x + box / 2}, {"y", y + 4}}, run == nullptr ? "" : mark_of(*run));
  return element("g", {{"class", class_of(run)}}, square + mark + tooltip(fault, run));
}

markup draw_pin(const line_faults &faults, char bus, unsigned line, int y) {
  const bool left = bus == 'A';
  const int x = left ? left_box : right_box;
  auto svg = element("line", {{"class", "wire"},
                              {"x1", left ? left_box - 4 : chip_right},
                              {"y1", y},
                              {"x2", left ? chip_left : right_box + box_step + box + 4},
                              {"y2", y}});
  for (unsigned level = 0; level < 2; ++level)
    svg += draw_level(faults, {bus, line, line, level}, x + static_cast<int>(level) * box_step, y);
  return svg +
         element("text",
                 {{"class", left ? "pin end" : "pin"},
                  {"x", left ? left_box - 8 : right_box + box_step + box + 8},
                  {"y", y + 4}},
                 name_of_line(bus, line)) +
         "\n";
}

markup draw_chip(const memory &of, const line_faults &faults) {
  const unsigned addresses = of.last_address - of.first_address + 1;
  const int height = static_cast<int>(std::max(addresses, data_lines)) * pin_height + top + 8;
  auto svg = element("rect", {{"class", "body"},
                              {"x", chip_left},
                              {"y", top - 18},
                              {"width", chip_right - chip_left},
                              {"height", height - top + 12},
                              {"rx", 6}});
  svg += element("text", {{"class", "name"}, {"x", width / 2}, {"y", height / 2}}, of.title);
  for (const int x : {left_box, right_box})
    for (int level = 0; level < 2; ++level)
      svg += element("text", {{"class", "level"}, {"x", x + level * box_step + box / 2}, {"y", 18}},
                     std::to_string(level));
  svg += "\n";
  for (unsigned i = 0; i < addresses; ++i)
    svg += draw_pin(faults, 'A', of.first_address + i, top + static_cast<int>(i) * pin_height);
  for (unsigned i = 0; i < data_lines; ++i)
    svg += draw_pin(faults, 'D', i, top + static_cast<int>(i) * pin_height);
  return element("svg",
                 {{"class", "chip"},
                  {"viewBox", "0 0 " + std::to_string(width) + " " + std::to_string(height)},
                  {"role", "img"},
                  {"aria-label", "lines of " + std::string(of.title)}},
                 svg) +
         "\n";
}

// ---- shorted pairs

constexpr int cell = 14;
constexpr int margin = 30;

// Half of a square: above its diagonal the pair in which 1 wins, below it the one in which 0 does.
markup draw_pair(const line_faults &faults, const line_fault &fault, int x, int y) {
  const auto *const run = find(faults, fault);
  const auto side = std::to_string(cell);
  const auto path = "M" + std::to_string(x) + " " + std::to_string(y) +
                    (fault.level == 1 ? "h" + side + "v" + side + "z" : "v" + side + "h" + side + "z");
  return element("path", {{"class", class_of(run)}, {"d", path}}, tooltip(fault, run));
}

markup draw_row_of_pairs(const line_faults &faults, char bus, unsigned first, unsigned line) {
  const int at = margin + static_cast<int>(line - first) * cell;
  const auto label = name_of_line(bus, line);
  auto svg = element("text", {{"class", "pin end"}, {"x", margin - 4}, {"y", at + cell - 3}}, label);
  const auto turned = "translate(" + std::to_string(at + cell - 3) + " " + std::to_string(margin - 4) + ") rotate(-90)";
  svg += element("text", {{"class", "pin"}, {"transform", turned}}, label) + "\n";
  for (unsigned other = first; other < line; ++other)
    for (unsigned level = 0; level < 2; ++level)
      svg += draw_pair(faults, {bus, other, line, level}, margin + static_cast<int>(other - first) * cell, at);
  return svg + "\n";
}

markup draw_pairs(const memory &of, const line_faults &faults, char bus) {
  const unsigned first = bus == 'A' ? of.first_address : 0;
  const unsigned last = bus == 'A' ? of.last_address : data_lines - 1;
  const unsigned lines = last - first + 1;
  const auto is_pair = [&](const auto &one) { return one.first.bus == bus && one.first.line != one.first.other; };
  // The matrix shows a few pairs better.
  if (std::ranges::count_if(faults, is_pair) < static_cast<std::ptrdiff_t>(lines * (lines - 1) / 2)) return {};
  const auto size = std::to_string(static_cast<int>(lines) * cell + margin);
  markup svg;
  for (unsigned line = first; line <= last; ++line)
    svg += draw_row_of_pairs(faults, bus, first, line);
  const auto label = std::string("shorted ") + (bus == 'A' ? "address" : "data") + " lines of " + std::string(of.title);
  return element("svg",
                 {{"class", "pairs"}, {"viewBox", "0 0 " + size + " " + size}, {"role", "img"}, {"aria-label", label}},
                 svg) +
         "\n";
}

}  // namespace

markup draw_memories(const matrix &all) {
  markup html;
  for (const auto &one : memories) {
    const auto faults = faults_of(all, one);
    if (faults.empty()) continue;
    html += element("figure", element("figcaption", one.title) + draw_chip(one, faults) + draw_pairs(one, faults, 'A') +
                                  draw_pairs(one, faults, 'D')) +
            "\n";
  }
  return html;
}

}  // namespace lab

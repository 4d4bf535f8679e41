// post_output.h: what a run of POST prints and records, told by its differences from a healthy one.
#pragma once

#include "sim/bus/layout.h"
#include "tests/support/run.h"

// Devices are keys "ID:DEVICE", with the test's id.
struct expected_run {
  std::string board = "P(0x1) board\n";
  std::string before_board = {};                 // between the start line and the board line
  std::map<std::string, std::string> said = {};  // behind the dot of a device
  std::set<std::string> failed = {};             // devices
  std::set<std::string> unrecorded = {"4:2"};    // devices, or tests by their id
  std::string after_record = {};                 // where each record cannot be written
};

// clang-format off
struct post_row { int id; const char *name; int devices; bool is_short; };
inline constexpr post_row post_rows[] = {
    {4, "SEEPROM", 3, true}, {5, "GigE Port", 4, true}, {8, "NVRAM", 1, false}, {10, "OBFL", 1, false}, {12, "PCIE", 7, true},
};
// clang-format on

// What the drivers say while they map their devices, before the POST starts.
inline std::string mapping_lines() {
  std::string text;
  for (const size_t i : {3U, 0U, 1U, 2U})
    text += format("devmemfd:0xN\nphys->virt: 0x%x-->0xADDR\n", sim::windows[i].base);
  return text;
}

// Calls `visit` with each row and device of a run; and with device -1 at the end of each row.
template <typename Visit>
void for_each_device(bool is_short, Visit visit) {
  for (const post_row &row : post_rows) {
    if (is_short && !row.is_short) continue;
    for (int device = 0; device < row.devices; ++device)
      visit(row, device, std::to_string(row.id) + ":" + std::to_string(device));
  }
}

inline bool is_recorded(const expected_run &run, const post_row &row, const std::string &key) {
  return !run.unrecorded.contains(key) && !run.unrecorded.contains(std::to_string(row.id));
}

// Standard output, as steady() leaves it.
inline std::string output_of(const expected_run &run, bool is_short) {
  std::string text = mapping_lines() + "Starting system POST.....\n" + run.before_board + run.board;
  for_each_device(is_short, [&](const post_row &row, int device, const std::string &key) {
    if (device == 0) text += std::string("  Executing Mod 1 1 ") + row.name + " Test: \n";
    text += ".";
    if (const auto said = run.said.find(key); said != run.said.end()) text += said->second;
    if (run.failed.contains(key))
      text += "\n ERROR: Executing " + std::to_string(row.id) + " on dev " + std::to_string(device) + "\n";
    if (is_recorded(run, row, key)) text += run.after_record;
    if (device == row.devices - 1) text += "done (N seconds)\n";
  });
  return text + "  Mod 1 1 Post " + (run.failed.empty() ? "Completed Successfully" : "Failed") +
         "\nPOST is completed\n";
}

inline std::string records_of(const expected_run &run, bool is_short) {
  std::string text;
  for_each_device(is_short, [&](const post_row &row, int, const std::string &key) {
    if (is_recorded(run, row, key) && run.after_record.empty())
      text += "0:" + key + (run.failed.contains(key) ? ":2\n" : ":1\n");
  });
  return text;
}

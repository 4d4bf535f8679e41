// fault.h: injected faults. One table names them all; a fault is a row and its parameters.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace sim {

struct fault_row {
  const char *name;   // as written on the command line
  const char *parms;  // "key=value ..." with the defaults of optional ones, "" for none
  const char *what;   // one line for --list-faults
};

// Every fault the board knows, in the order in which --list-faults prints them.
std::span<const fault_row> fault_table();

// One fault as asked for: "NAME key=value ...", numbers in C notation.
struct fault {
  std::string name;
  std::map<std::string, uint64_t, std::less<>> parm;

  [[nodiscard]] uint64_t get(std::string_view key, uint64_t otherwise = 0) const;
  [[nodiscard]] bool has(std::string_view key) const { return parm.find(key) != parm.end(); }
};

// Parses one fault. On failure returns nothing and says why in *error.
std::optional<fault> fault_parse(std::string_view text, std::string *error);

}  // namespace sim

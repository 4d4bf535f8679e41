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
  const char *parms;  // parameters separated by a blank, "" for none:
                      //   key=LOW..HIGH            a number, must be given
                      //   key=word|word            one of the words; its value is its position, from 0
                      //   [...]                    may be left out
                      //   [key=LOW..HIGH:DEFAULT]  may be left out and is then DEFAULT
  const char *what;   // one line for --list-faults
};

// Every fault the board knows, in the order in which --list-faults prints them.
std::span<const fault_row> fault_table();

// One fault as asked for: "NAME key=value ...", numbers in C notation.
struct fault {
  std::string name;
  std::map<std::string, uint64_t, std::less<>> parm;  // what was given, and the defaults of what was not
  std::string text;                                   // as it was asked for

  // The value of a parameter; `otherwise` if it was left out and has no default.
  [[nodiscard]] uint64_t get(std::string_view key, uint64_t otherwise = 0) const;
  [[nodiscard]] bool has(std::string_view key) const { return parm.find(key) != parm.end(); }
  // The parameter errno.
  [[nodiscard]] int error() const { return static_cast<int>(get("errno")); }
  // Whether the parameters bus and addr name this I2C device.
  [[nodiscard]] bool is_at(uint64_t bus, uint64_t addr) const { return get("bus") == bus && get("addr") == addr; }
  // Whether the parameters nth and times, 0 for ever, name the event of this number, from 1.
  [[nodiscard]] bool hits(uint64_t event) const;
};

// Parses one fault against the table. On failure returns nothing and says why in *error: unknown name, unknown,
// repeated, missing or bad parameter.
std::optional<fault> fault_parse(std::string_view text, std::string *error);

}  // namespace sim

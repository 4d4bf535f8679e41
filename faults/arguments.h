// arguments.h: how a program of a board or of the lab begins: its standard streams, and what is wrong with its
// arguments, in this project's words where the library's are made for programmers.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "faults/text.h"

namespace sim {

// Devices, files and pipes must not get the numbers of standard streams that are closed.
inline void open_standard_streams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) >= 0) continue;
    (void)open("/dev/null", stream == STDERR_FILENO ? O_WRONLY : O_RDONLY);  // the lowest number that is free
  }
}

// The names that an argument may be a slip of: "--log", "--json".
inline std::vector<std::string> option_names(const CLI::App &app) {
  std::vector<std::string> names;
  for (const CLI::Option *option : app.get_options()) {
    for (const std::string &name : option->get_lnames())
      names.push_back("--" + name);
  }
  return names;
}

inline std::string unexpected_argument(const CLI::App &app, const std::string &extra) {
  if (!extra.starts_with('-')) return "unexpected argument " + sim::quoted(extra);
  const auto names = option_names(app);
  return "unknown option " + sim::quoted(extra) +
         did_you_mean(extra, std::vector<std::string_view>(names.begin(), names.end()));
}

// "NAME: VALUE not in {A,B}", "NAME: Value VALUE not in range A to B", or "[A - B]" since version 2.3 of the library;
// "" for other texts.
inline std::string bad_value(std::string_view text) {
  const auto colon = text.find(": ");
  const auto middle = text.find(" not in ");
  if (colon == std::string_view::npos || middle == std::string_view::npos || middle < colon) return "";
  const auto name = text.substr(0, colon);
  auto value = text.substr(colon + 2, middle - colon - 2);
  std::string allowed(text.substr(middle + std::string_view(" not in ").size()));
  std::string hint;
  if (allowed.starts_with('{')) {
    allowed = allowed.substr(1, allowed.size() - 2);
    std::ranges::replace(allowed, ',', ' ');
    hint = did_you_mean(value, words_of(allowed));
    std::ranges::replace(allowed, ' ', '|');
  } else if (allowed.starts_with("range ") && value.starts_with("Value ")) {
    allowed.erase(0, std::string_view("range ").size());
    if (allowed.starts_with('['))
      allowed = allowed.substr(1, allowed.find(" - ") - 1) + " to " + allowed.substr(allowed.find(" - ") + 3);
    if (allowed.ends_with(']')) allowed.pop_back();
    value.remove_prefix(std::string_view("Value ").size());
  }
  return "bad value " + sim::quoted(value) + " of " +
         (name.starts_with('-') ? "option " + sim::quoted(name) : std::string(name)) + ", allowed is " + allowed + hint;
}

inline std::string defect_of(const CLI::App &app, const CLI::ParseError &stop) {
  std::string text = stop.what();
  if (dynamic_cast<const CLI::ExtrasError *>(&stop) != nullptr && !app.remaining().empty())
    return unexpected_argument(app, app.remaining().front());
  if (dynamic_cast<const CLI::ArgumentMismatch *>(&stop) != nullptr)
    return "option " + sim::quoted(text.substr(0, text.find(':'))) + " needs a value";
  if (auto bad = bad_value(text); !bad.empty()) return bad;
  constexpr std::string_view conversion = "Could not convert: ";
  if (!text.starts_with(conversion)) return text;
  std::string_view rest = std::string_view(text).substr(conversion.size());
  const auto name = rest.substr(0, rest.find(' '));
  rest.remove_prefix(std::min(rest.size(), name.size() + 3));
  return "bad value " + sim::quoted(rest) + " of option " + sim::quoted(name) + ", allowed is a whole number";
}

}  // namespace sim

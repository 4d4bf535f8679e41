// outcome.h: how a run ended. Each run has exactly one outcome.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace lab {

enum class outcome : uint8_t {
  found,        // the right device reported it, and no other
  blamed,       // reported, but by a device that has no part in it
  missed,       // passed
  ended,        // ended early: no verdict, an assertion or a signal
  hung,         // did not end within the limit
  damaged,      // contents differ beyond what the fault itself destroys
  not_fired,    // the fault changed nothing: the run says nothing
  refused,      // the simulated board refused the fault
  healthy,      // no fault, passed
  harmless,     // what the fault does breaks nothing: passed
  false_alarm,  // nothing is broken, yet something was reported
};
inline constexpr size_t outcome_count = 11;

struct outcome_text {
  std::string_view name;   // in files
  std::string_view title;  // for people
  std::string_view mark;   // one character beside a colour
};

// clang-format off
inline constexpr std::array<outcome_text, outcome_count> outcome_texts{{
    {"found",       "found by the right device",     "\u2713"},
    {"blamed",      "found, but blamed elsewhere",   "\u2260"},
    {"missed",      "missed",                        "\u2717"},
    {"ended",       "ended early",                   "\u2020"},
    {"hung",        "hung",                          "\u221e"},
    {"damaged",     "other contents damaged",        "!"},
    {"not-fired",   "not fired",                     "0"},
    {"refused",     "refused",                       "-"},
    {"healthy",     "healthy, passed",               "\u2713"},
    {"harmless",    "nothing was broken",            "\u25cb"},
    {"false-alarm", "false alarm",                   "\u2717"},
}};
// clang-format on

[[nodiscard]] constexpr const outcome_text &text_of(outcome end) {
  return outcome_texts[static_cast<size_t>(end)];
}

[[nodiscard]] constexpr std::optional<outcome> outcome_named(std::string_view name) {
  for (size_t i = 0; i < outcome_count; ++i)
    if (outcome_texts[i].name == name) return static_cast<outcome>(i);
  return std::nullopt;
}

}  // namespace lab

// finding.h: what a probe of a part reports, as plain records.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace locate {

// A number for people: "0x00FF" with 4 digits at least.
[[nodiscard]] inline std::string hex(uint32_t value, int digits = 1) {
  char text[16];
  (void)std::snprintf(text, sizeof text, "0x%0*X", digits, value);
  return text;
}

// What the system says of the call that failed last, after what it failed on.
[[nodiscard]] inline std::string os_error(const std::string &what) {
  return what + ": " + std::strerror(errno);
}

struct finding {
  std::string sentence = {};                 // what is broken
  std::vector<std::string> evidence = {};    // what was seen
  std::vector<std::string> candidates = {};  // the faults that give this, in the notation of the fault table
  bool intermittent = false;
  std::string next = {};                 // for people: what to measure or try next
  std::vector<std::string> places = {};  // for people: names of places, which a table of the board's own names may have
};

enum class part_state : uint8_t { good, faulty, not_tested };

struct part_result {
  std::string_view part = {};  // filled in by the frame
  part_state state = part_state::good;
  std::string reason = {};  // why it, or what an option asks for, was not tested
  uint64_t accesses = 0;    // of the device: bus cycles, transactions or calls
  std::vector<finding> findings = {};
  // For people, where nothing is found: "every address and data line".
  std::vector<std::string> looked_at = {};
  std::vector<std::string> not_looked_at = {};
};

// Adds a finding to a part that is faulty then.
inline void add_finding(finding what, part_result *result) {
  result->state = part_state::faulty;
  result->findings.push_back(std::move(what));
}

// Something that was asked for could not be tested, and why, as a sentence.
inline void add_omission(std::string why, part_result *result) {
  if (result->state == part_state::good) result->state = part_state::not_tested;
  result->reason = std::move(why);
}

// The part could not be tested, and why: the first sentence of its finding. Returns false, as its callers do then.
inline bool add_obstacle(finding why, part_result *result) {
  result->state = part_state::not_tested;
  result->reason = why.sentence;
  result->findings.push_back(std::move(why));
  return false;
}

}  // namespace locate

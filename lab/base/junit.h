// junit.h: JUnit XML, as far as its readers agree on it.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace lab {

struct junit_case {
  enum class ending : uint8_t { pass, failure, error, skipped };

  std::string class_name;
  std::string name;
  std::optional<double> seconds;  // where they are known
  ending result = ending::pass;
  std::string message;  // of all but a pass
  std::string type;     // of a failure or error
  std::string output;
};

struct junit_suite {
  std::string name;
  std::optional<double> seconds;
  std::vector<std::pair<std::string, std::string>> properties;  // those with a value are written
  std::vector<junit_case> cases;
  std::string output;
  std::string errors;
  std::string timestamp;  // "" if it is not known, as the next
  std::string hostname;
};

[[nodiscard]] std::string junit_xml(const std::string &name, const std::vector<junit_suite> &suites);

}  // namespace lab

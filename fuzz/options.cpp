// Options of the simulated board and its faults, as lines of text: what is taken says the same when it is written down,
// and what is refused has a reason. The first byte chooses whether it is one fault or a whole command line.
#include <array>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "sim/base/options.h"

namespace {

void try_fault(const std::string &text) {
  std::string error;
  const auto fault = sim::fault_parse(text, &error);
  MUST_HOLD(fault.has_value() == error.empty());
  if (!fault) return;
  const auto again = sim::fault_parse(fault->text, &error);
  MUST_HOLD(again.has_value());
  MUST_HOLD(again->text == fault->text && again->id == fault->id && again->values == fault->values);
}

void try_options(const std::string &lines) {
  std::string error;
  const auto options = sim::options_parse_lines(lines, &error);
  MUST_HOLD(options.has_value() == error.empty());
  if (!options) return;
  const std::string written = sim::options_format(*options);
  const auto again = sim::options_parse_lines(written, &error);
  MUST_HOLD(again.has_value());
  MUST_HOLD(sim::options_format(*again) == written && again->faults.size() == options->faults.size());
  MUST_HOLD(again->card == options->card && again->state == options->state && again->trace == options->trace);
}

void try_command(const std::string &lines) {
  std::vector<std::string> args;
  std::istringstream in(lines);
  for (std::string line; std::getline(in, line);)
    args.push_back(line);
  std::string error;
  const auto command = sim::command_parse(args, &error);
  MUST_HOLD(command.has_value() == error.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char *>(data) + 1, size - 1);
  constexpr std::array tries{try_fault, try_options, try_command};
  tries[data[0] % tries.size()](text);
  return 0;
}

#include "sim/devices/ethtool.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

#include "sim/base/fault_counts.h"
#include "sim/base/options.h"

namespace sim {

namespace {

constexpr std::array ports{"eth0", "eth1", "eth2", "eth5"};

struct sub_test {
  const char *text;  // as the controllers' driver names it
  bool online;       // runs without taking the port down
  const char *word;  // as the fault table names it
};

// clang-format off
constexpr std::array sub_tests{std::to_array<sub_test>({
    // text                       online word
    {"Register test  (offline)",  false, "register"},
    {"Eeprom test    (offline)",  false, "eeprom"},
    {"Interrupt test (offline)",  false, "interrupt"},
    {"Loopback test  (offline)",  false, "loopback"},
    {"Link test   (on/offline)",  true,  "link"},
})};
// clang-format on

constexpr int exit_usage = 1;
constexpr int exit_no_device = 71;

int usage() {
  (void)std::fputs("ethtool: bad command line argument(s)\nFor more information run ethtool -h\n", stderr);
  return exit_usage;
}

uint64_t result_of(const options &opts, std::string_view port, const sub_test &test, bool online) {
  if (online && !test.online) return 0;
  for (const auto &f : opts.faults)
    if (f.id == fault_id::ethtool_fail && f.word(parm::port) == port && f.word(parm::test) == test.word && f.strikes())
      return f.get(parm::code);
  return 0;
}

bool is_silent(const options &opts, std::string_view port) {
  return std::ranges::any_of(opts.faults, [&](const fault &f) {
    return f.id == fault_id::ethtool_silent && (!f.has(parm::port) || f.word(parm::port) == port) && f.strikes();
  });
}

int self_test(const options &opts, std::string_view port, bool online) {
  std::array<uint64_t, sub_tests.size()> results{};
  std::ranges::transform(sub_tests, results.begin(),
                         [&](const sub_test &test) { return result_of(opts, port, test, online); });
  const bool failed = std::ranges::any_of(results, [](uint64_t result) { return result != 0; });
  (void)std::printf("The test result is %s\nThe test extra info:\n", failed ? "FAIL" : "PASS");
  for (size_t i = 0; i < results.size(); ++i)
    (void)std::printf("%s\t %llu\n", sub_tests[i].text, static_cast<unsigned long long>(results[i]));
  (void)std::printf("\n");
  return failed ? 1 : 0;
}

}  // namespace

int ethtool_main(std::span<const std::string> args) {
  std::string error;
  const char *const asked = std::getenv(options_variable);
  auto opts = options_parse_lines(asked == nullptr ? "" : asked, &error);
  fault_counts counts;
  if (!opts || !counts.open(&*opts, &error)) {
    (void)std::fprintf(stderr, "ethtool: %s\n", error.c_str());
    return exit_usage;
  }
  if (args.size() < 2 || args.size() > 3 || (args[0] != "-t" && args[0] != "--test")) return usage();
  const bool online = args.size() == 3 && args[2] == "online";
  if (args.size() == 3 && !online && args[2] != "offline") return usage();
  const auto &port = args[1];
  if (std::ranges::find(ports, port) == ports.end()) {
    (void)std::fputs("Cannot get driver information: No such device\n", stderr);
    return exit_no_device;
  }
  return is_silent(*opts, port) ? 0 : self_test(*opts, port, online);
}

}  // namespace sim

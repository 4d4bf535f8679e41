// ethernet.cpp: the self-test of each Ethernet controller, with every sub-test's own result.
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <memory>

#include "locate/identity.h"
#include "locate/parts.h"

namespace locate {
namespace {

constexpr std::array ports{0, 1, 2, 5};

struct sub_test {
  const char *text;  // how its line begins
  const char *word;  // of the fault table
  const char *next;
};

// clang-format off
constexpr std::array sub_tests{std::to_array<sub_test>({
    {"Register test",  "register",  "replace the controller"},
    {"Eeprom test",    "eeprom",    "check the controller's own EEPROM and its lines"},
    {"Interrupt test", "interrupt", "check the interrupt's line or messages, then the controller"},
    {"Loopback test",  "loopback",  "check the controller's supply and clock, then the transceiver"},
    {"Link test",      "link",      "check cable and partner: without a cable there is no link"},
})};
// clang-format on

// What a command prints, its errors as well.
std::string output_of(const std::string &command) {
  const std::unique_ptr<FILE, int (*)(FILE *)> pipe(popen((command + " 2>&1").c_str(), "r"), pclose);
  std::string text;
  std::array<char, 256> piece{};
  while (pipe && std::fgets(piece.data(), piece.size(), pipe.get()) != nullptr)
    text += piece.data();
  return text;
}

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  for (size_t from = 0, to = 0; (to = text.find('\n', from)) != std::string::npos; from = to + 1)
    if (to != from) lines.push_back(text.substr(from, to - from));
  return lines;
}

using sub_test_list = std::vector<const sub_test *>;

// A line that may have the result of a sub-test; that one is no longer without.
void check_line(const std::string &port, const std::string &line, sub_test_list *without, part_result *result) {
  const auto *const test = std::ranges::find_if(sub_tests, [&](const auto &t) { return line.starts_with(t.text); });
  if (test == sub_tests.end()) return;
  std::erase(*without, test);
  const auto start = line.find_last_of(" \t") + 1;
  const auto code = line.substr(start);
  if (code == "0") return;
  add_finding({.sentence = port + ": the " + test->word + " test fails.",
               .evidence = {"its result is " + code},
               .candidates = {"ethtool-fail port=" + port + " test=" + test->word + " code=" + code},
               .next = test->next,
               .places = {port}},
              result);
}

void check_port(const std::string &port, part_result *result) {
  const auto text = output_of("ethtool -t " + port);
  const auto lines = lines_of(text);
  ++result->accesses;
  sub_test_list without;
  for (const auto &test : sub_tests)
    without.push_back(&test);
  for (const auto &line : lines)
    check_line(port, line, &without, result);
  if (without.empty()) return;
  if (without.size() < sub_tests.size()) {
    std::string words;
    for (const auto *test : without)
      words += (words.empty() ? "" : ", ") + std::string(test->word);
    return add_finding({.sentence = port + ": the self-test has no result of: " + words + ".",
                        .evidence = {lines.back()},
                        .next = "see the kernel's log, and repeat it: 'ethtool -t " + port + "'",
                        .places = {port}},
                       result);
  }
  const bool missing = text.find("not found") != std::string::npos;
  add_finding({.sentence = port + ": the self-test has no result.",
               .evidence = {lines.empty() ? "ethtool prints nothing" : lines.front()},
               .candidates = {missing ? "ethtool-missing" : "ethtool-silent port=" + port},
               .next = missing ? "install ethtool" : "check whether the kernel has the port, with 'ip link'",
               .places = {port}},
              result);
}

}  // namespace

part_result probe_ethernet(const settings & /*how*/) {
  part_result result;
  const auto *const card = this_card(&result);
  if (card == nullptr) return result;
  for (const int number : ports) {
    const auto port = "eth" + std::to_string(number);
    const bool untested = std::ranges::find(card->untested_ports, number) != card->untested_ports.end();
    (untested ? result.not_looked_at : result.looked_at).push_back(port);
    if (!untested) check_port(port, &result);
  }
  return result;
}

}  // namespace locate

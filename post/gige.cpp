#include "post/gige.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "post/dorvan/cards.h"
#include "post/dorvan/pfm_card.h"
#include "post/ignored_signals.h"
#include "post/post_tbl.h"

namespace {

constexpr char ethtool_log[] = "/post/ethtool.log";

// A failure counts only when one of these did not read 0: a link test, say, fails without a cable.
constexpr const char *sub_tests[] = {"Register test", "Eeprom test", "Loopback test", "Interrupt test"};

using line_buffer = std::array<char, 128>;

// The verdict comes from the log, not from a command's exit status. Commands would inherit what is ignored here: they
// meet a broken pipe and a full file as those that a shell starts do. A program that loads this test may have handlers
// of its own: they come back with their flags.
void run(const char *command) {
  const struct sigaction no_handler {};
  std::array<struct sigaction, ignored_signals.size()> own;
  for (size_t i = 0; i < own.size(); ++i)
    (void)sigaction(ignored_signals[i], &no_handler, &own[i]);
  [[maybe_unused]] const int status = system(command);
  for (size_t i = 0; i < own.size(); ++i)
    (void)sigaction(ignored_signals[i], &own[i], nullptr);
}

enum class verdict { pass, fail, none };

// Leaves the stream after the word.
verdict find_verdict(FILE *log) {
  line_buffer word;
  while (fscanf(log, "%127s", word.data()) == 1) {
    if (strcmp(word.data(), "PASS") == 0) return verdict::pass;
    if (strcmp(word.data(), "FAIL") == 0) return verdict::fail;
  }
  return verdict::none;
}

// Whether the rest of the log has lines of the named sub-tests, and a '0' in each.
bool sub_tests_passed(FILE *log) {
  line_buffer line;
  bool seen = false;
  while (fgets(line.data(), line.size(), log) != nullptr) {
    const bool named = std::ranges::any_of(sub_tests, [&](const char *name) { return strstr(line.data(), name); });
    if (!named) continue;
    if (strchr(line.data(), '0') == nullptr) return false;
    seen = true;
  }
  return seen;
}

// Each line keeps its newline and gets another.
void dump_log(int port) {
  printf("ethtool -t eth%d\n", port);
  const file_ptr log(fopen(ethtool_log, "r"));
  if (!log) return;
  line_buffer line;
  while (fgets(line.data(), line.size(), log.get()) != nullptr)
    puts(line.data());
}

int32_t judge_log(int port) {
  file_ptr log(fopen(ethtool_log, "r"));
  if (!log) {
    puts("Fail to open /post/ethtool.log");
    return 1;
  }
  const verdict found = find_verdict(log.get());
  if (found == verdict::pass) return 0;
  if (found == verdict::none) {
    log.reset();
    puts("Fail to parse /post/ethtool.log PASS/FAIL result");
    return 1;
  }
  const bool passed = sub_tests_passed(log.get());
  log.reset();
  if (passed) return 0;
  dump_log(port);
  return 1;
}

}  // namespace

uint32_t dorvan_nic_lpback_test(uint32_t /*reserved*/, uint32_t *result, uint32_t device, uint32_t * /*scratch*/) {
  const auto status = static_cast<uint32_t>(gige_test(device == 3 ? 5 : static_cast<int>(device)));
  *result = post_result_of(status);
  return status;
}

int32_t gige_test(int port) {
  uint16_t card_index = PFM_CARD_UNKNOWN;
  if (const uint32_t status = pfm_get_card_index(&card_index); status != 0) return static_cast<int32_t>(status);
  const dorvan_card_t *const card = dorvan_card(card_index);
  if (card != nullptr && std::ranges::count(card->untested_ports, port) != 0) return 0;

  line_buffer command;
  (void)snprintf(
      command.data(), command.size(),
      short_test != 0 ? "ethtool -t eth%d online > /post/ethtool.log" : "ethtool -t eth%d > /post/ethtool.log", port);
  run(command.data());
  const int32_t status = judge_log(port);
  run("rm /post/ethtool.log");
  return status;
}

#include "lab/explain_flash.h"

#include <algorithm>
#include <array>
#include <bit>
#include <map>

#include "lab/explain_chip.h"
#include "lab/explain_flash_cells.h"
#include "lab/explain_flash_run.h"

namespace lab {
namespace {

constexpr unsigned first_line = 1;
constexpr unsigned last_line = 25;

struct hypothesis {
  chip_fault fault;
  fault_group group;
};

// ---- hypotheses

void add_lines(std::vector<hypothesis> *all) {
  for (const auto &fault : line_faults(first_line, last_line)) {
    for (const bool commands : {false, true}) {
      auto group = line_group("flash", fault);
      group.values.emplace_back("commands", commands ? "1" : "0");
      all->push_back({{.what = chip_fault::kind::lines, .lines = fault, .commands = commands}, std::move(group)});
    }
  }
}

struct operation_row {
  chip_fault::kind what;
  bool gives_up;
  std::string_view name;
  std::string_view dq5;  // value of that parameter, "" for none
  std::string_view how;
};

// clang-format off
constexpr operation_row operation_rows[] = {
    {chip_fault::kind::erase_hangs,     false, "flash-erase-hangs",     "0", "an erase never ends"},
    {chip_fault::kind::erase_hangs,     true,  "flash-erase-hangs",     "1", "an erase is given up by the chip (DQ5)"},
    {chip_fault::kind::program_hangs,   false, "flash-program-hangs",   "0", "programming never ends"},
    {chip_fault::kind::program_hangs,   true,  "flash-program-hangs",   "1", "programming is given up by the chip (DQ5)"},
    {chip_fault::kind::erase_ignored,   false, "flash-erase-ignored",   "",  "an erase does nothing and reports success"},
    {chip_fault::kind::program_ignored, false, "flash-program-ignored", "",  "programming does nothing and reports success"},
};
// clang-format on

void add_operations(std::vector<hypothesis> *all) {
  for (const auto &row : operation_rows) {
    std::vector<std::optional<uint32_t>> sectors{std::nullopt};
    for (const auto &test : flash_sector_tests())
      if (std::ranges::find(sectors, std::optional(test.sector)) == sectors.end()) sectors.emplace_back(test.sector);
    for (const auto &sector : sectors) {
      auto group = group_named(std::string(row.name), {});
      if (sector) group.values.emplace_back("sector", std::to_string(*sector));
      if (!row.dq5.empty()) group.values.emplace_back("dq5", row.dq5);
      group.where = sector ? "sector " + std::to_string(*sector) : "the chip";
      group.how = row.how;
      all->push_back({{.what = row.what, .sector = sector, .gives_up = row.gives_up}, std::move(group)});
    }
  }
}

void add_silence(std::vector<hypothesis> *all) {
  for (const auto *const name : {"flash-silent", "bar-io"}) {
    auto group = group_named(name, {});
    if (group.name == "bar-io") group.values.emplace_back("bar", "5");
    group.where = group.name == "bar-io" ? "the region" : "the chip";
    group.how =
        group.name == "bar-io" ? "nothing answers: the bridge maps no memory there" : "nothing answers: all ones";
    all->push_back({{.what = chip_fault::kind::silent}, std::move(group)});
  }
}

// The words of the query that the driver takes its limits from. Exponents from 64 on are alike: too large.
void add_query(std::vector<hypothesis> *all) {
  constexpr uint32_t alike_from = 64;
  for (const uint32_t word : {0x20U, 0x21U, 0x24U, 0x25U}) {
    for (uint32_t value = 0; value <= alike_from; ++value) {
      auto group = group_named("flash-cfi", {{"word", number_list(std::array{word}, true)},
                                             {"value", number_list(std::array{value}, true)}});
      if (value == alike_from) {
        group.values[1].second = "0x40..0xFFFF";
        group.count = 0x10000 - alike_from;
      }
      group.where = "the query";
      group.how = "word " + group.values[0].second + " reads wrong: the driver takes its limits from it";
      all->push_back({{.what = chip_fault::kind::query, .word = word, .value = value}, std::move(group)});
    }
  }
}

// Status reads of a slow program or erase. From some number on the driver has given up in any case.
void add_slow(std::vector<hypothesis> *all) {
  constexpr uint32_t alike_from = 100;
  constexpr uint32_t most = 1'000'000;
  const auto add = [&](uint32_t program, uint32_t erase, uint32_t scanned, const char *how) {
    auto group = group_named("flash-slow", {{"program", number_list(std::array{program}, false)},
                                            {"erase", number_list(std::array{erase}, false)}});
    if (scanned == alike_from) {
      auto &value = group.values[program == scanned ? 0 : 1].second;
      value += ".." + std::to_string(most);
      group.count = most - alike_from + 1;
    }
    if (erase != 2) group.values[0].second = "0..1000000";
    group.where = "the chip";
    group.how = how;
    all->push_back({{.what = chip_fault::kind::slow, .word = program, .value = erase}, std::move(group)});
  };
  for (uint32_t erase = 3; erase <= alike_from; ++erase)
    add(0, erase, erase, "an erase lasts longer than the query says");
  for (uint32_t program = 1; program <= alike_from; ++program)
    add(program, 2, program, "programming lasts longer than the query says");
}

// ---- predictions

struct prediction {
  std::vector<flash_event> events;
  bool hung = false;
};

prediction predict(const chip_fault &fault, const chip_contents &contents) {
  flash_chip chip(fault, contents);
  prediction made;
  made.events = run_flash_test(&chip, &made.hung);
  return made;
}

constexpr std::array former_contents{chip_contents::kind::noise, chip_contents::kind::noise_of_reset,
                                     chip_contents::kind::blank, chip_contents::kind::zero};

struct predicted {
  hypothesis what;
  std::vector<std::vector<flash_event>> printed;  // for each of the former contents
  bool by_contents = false;                       // they differ
};

std::vector<predicted> predict_all() {
  std::vector<hypothesis> all;
  add_operations(&all);
  add_lines(&all);
  add_silence(&all);
  add_query(&all);
  add_slow(&all);
  std::vector<predicted> list;
  for (auto &one : all) {
    predicted made{std::move(one), {}};
    for (const auto kind : former_contents) {
      auto prediction = predict(made.what.fault, {kind, {}});
      if (prediction.hung) break;
      made.printed.push_back(std::move(prediction.events));
    }
    made.by_contents = std::ranges::adjacent_find(made.printed, std::ranges::not_equal_to{}) != made.printed.end();
    if (!made.printed.empty()) list.push_back(std::move(made));
  }
  return list;
}

const std::vector<predicted> &predictions() {
  static const auto all = predict_all();
  return all;
}

// Where commands do not get through the test reads what the chip held: contents that give what was read, and in the
// words before it what was expected.
std::optional<chip_contents> contents_that_show(const flash_event &mismatch, const chip_fault &fault,
                                                chip_contents::kind base) {
  if (mismatch.what != flash_line::mismatch || !mismatch.address) return std::nullopt;
  const auto &lines = fault.lines;
  const bool moved = fault.what == chip_fault::kind::lines && lines.address;
  chip_contents contents{base, {}};
  for (const auto &test : flash_sector_tests()) {
    for (const auto &list : test.lists) {
      for (size_t i = 0; i < list.data.size(); ++i) {
        const auto address = list.addresses[i];
        const bool here = address == mismatch.address && mismatch.data.value_or(list.data[i]) == list.data[i];
        const auto word = here ? mismatch.read.value_or(~list.data[i] & 0xFFFFU) : list.data[i];
        contents.words.try_emplace(moved ? lines.bad.pass(address) : address, static_cast<uint16_t>(word));
        if (here) return contents;
      }
    }
  }
  return std::nullopt;
}

struct match {
  bool some = false;
  bool all = true;
};

match match_of(const predicted &one, const std::vector<flash_event> &events, bool whole) {
  match found;
  for (const auto &printed : one.printed) {
    const bool fits = !printed.empty() && flash_events_fit(printed, events, whole);
    found.some |= fits;
    found.all &= fits;
  }
  if (found.some || !one.by_contents) return found;
  for (const auto base : former_contents) {
    const auto contents = contents_that_show(events.front(), one.what.fault, base);
    if (!contents) break;
    found.some |= flash_events_fit(predict(one.what.fault, *contents).events, events, whole);
  }
  return found;
}

}  // namespace

std::vector<fault_group> explain_flash(const std::vector<flash_event> &events, bool whole) {
  std::vector<fault_group> groups;
  if (events.empty()) return groups;
  for (const auto &one : predictions()) {
    const auto match = match_of(one, events, whole);
    if (!match.some) continue;
    auto group = one.what.group;
    group.contents = !match.all;
    groups.push_back(std::move(group));
  }
  for (const auto *const key : {"commands", "value", "program", "erase"})
    join_groups(key, &groups);
  explain_flash_cells(events, whole, &groups);
  return groups;
}

}  // namespace lab

// The lines of the flash: every single fault on the chip's model, with each kind of contents. Each 30th fault;
// POST_LOCATE_EVERY=1 takes all.
#include "locate/flash_lines.h"
#include "models/single_faults.h"
#include "tests/locate/contents.h"
#include "tests/support/run.h"

namespace {

using locate::part_result;
using models::chip_fault;

constexpr uint32_t sector_bytes = models::flash_sector_bytes;

class chip_bus final : public locate::flash_bus, models::flash_watcher {
 public:
  chip_bus(models::memory words, std::span<const chip_fault> faults) : m_chip(words, faults, {.watcher = this}) {}
  [[nodiscard]] const models::nor_flash &chip() const { return m_chip; }
  [[nodiscard]] unsigned operations() const { return m_operations; }

 private:
  void programs(std::span<const models::word_write>) override { ++m_operations; }
  void erases(const std::bitset<models::flash_sectors> &) override { ++m_operations; }
  void done() override {}
  uint16_t read_cycle(uint32_t offset) override { return m_chip.read(offset); }
  void write_cycle(uint32_t offset, uint16_t data) override { m_chip.write(offset, data); }
  bool may_run(unsigned polls) override { return polls < 16; }

  unsigned m_operations = 0;  // programs and erases
  models::nor_flash m_chip;
};

// --- contents

// Two sectors with the same words, whose numbers differ in one line.
bytes twins() {
  auto all = noise(6, 0x8000);
  std::ranges::copy_n(all.begin() + 5 * sector_bytes, 0x8000, all.begin() + 7 * sector_bytes);
  std::fill_n(all.begin(), 5 * sector_bytes, 0xFF);
  return all;
}

// All sectors alike, as of a device that repeats its first one.
bytes all_alike() {
  auto all = noise(1, sector_bytes);
  for (uint32_t sector = 1; sector < models::flash_sectors; ++sector)
    std::ranges::copy_n(all.begin(), sector_bytes, &all[size_t{sector} * sector_bytes]);
  return all;
}

// --- one run

struct verdict {
  bool found = false;
  bool named = false;  // the place only
  bool wrong = false;  // places, and not the true one
  unsigned accesses = 0;
  unsigned operations = 0;
};

using place = std::pair<bool, uint32_t>;

std::set<place> places_of(const part_result &result) {
  std::set<place> places;
  for (const auto &what : result.findings) {
    for (const auto &text : what.candidates) {
      std::string error;
      const auto fault = sim::fault_parse(text, &error);
      EXPECT_TRUE(fault) << text << ": " << error;
      const auto line = fault ? models::line_fault_of(models::chip_fault_of(*fault)) : std::nullopt;
      if (line) places.emplace(line->address, line->bad.lines);
    }
  }
  return places;
}

verdict run(bytes *contents, const models::single_line_fault &line, bool commands, bool write) {
  auto fault = line.fault;
  fault.commands = commands;
  const std::array faults{fault};
  chip_bus bus(models::memory(*contents), faults);
  part_result result;
  locate::locate_flash_lines(&bus, 1, write, &result);
  const auto places = places_of(result);
  const bool has = places.contains({line.address, line.bad.lines});
  const bool named = has && places.size() == 1, wrong = !has && !places.empty();
  return {!result.findings.empty(), named, wrong, bus.accesses(), bus.operations()};
}

struct contents_row {
  const char *name;
  bytes (*make)();
  bool commands;
  bool write;
  // What is promised of address and of data faults.
  enum class promise : uint8_t { nothing, found, named } address, data;
  unsigned accesses;  // at most
};

using enum contents_row::promise;

// clang-format off
const std::array contents_rows{std::to_array<contents_row>({
    // contents                                              commands write  address  data     accesses
    {"full",               [] { return noise(512, sector_bytes); }, false, false, named,   named,   400},
    {"full, pins",         [] { return noise(512, sector_bytes); }, true,  false, named,   named,   400},
    {"partly full, pins",  [] { return noise(512, 0x1000); },       true,  false, found,   named,   4500},
    {"partly full",        [] { return noise(512, 0x1000); },       false, false, nothing, named,   4500},
    {"text, pins",         [] { return text(200, false); },         true,  false, found,   nothing, 4500},
    {"text",               [] { return text(200, false); },         false, false, nothing, nothing, 4500},
    {"even text",          [] { return text(40, true); },           false, false, nothing, nothing, 4500},
    {"one sector, pins",   [] { return text(1, false); },           true,  false, found,   nothing, 4500},
    {"blank, pins",        blank,                                   true,  false, found,   nothing, 3500},
    {"blank, written",     blank,                                   false, true,  named,   found,   700'000},
})};
// clang-format on

const size_t every = std::max<size_t>(1, number_from("POST_LOCATE_EVERY", 30));

TEST(locate_flash, never_names_a_wrong_line_and_finds_what_the_contents_let_it) {
  const auto lines = models::line_faults(models::memory_kind::flash, 1, 25);
  for (const auto &row : contents_rows) {
    auto contents = row.make();
    const auto before = contents;
    unsigned found = 0;
    unsigned count = 0;
    for (size_t i = 0; i < lines.size(); i += every) {
      const auto &line = lines[i];
      const bool floats = line.bad.kind == models::line_kind::floating;
      const auto got = run(&contents, line, row.commands, row.write);
      const auto name = std::string(row.name) + ": " + models::notation(line.fault);
      const auto promise = line.address ? row.address : row.data;
      ++count;
      found += got.found ? 1 : 0;
      EXPECT_FALSE(got.wrong) << name;
      EXPECT_LE(got.accesses, row.accesses) << name;
      EXPECT_TRUE(row.write || got.operations == 0) << name << ": a program or an erase";
      EXPECT_TRUE(got.found || promise == nothing || floats) << name;
      EXPECT_TRUE(got.named || promise != named || floats) << name;
      EXPECT_TRUE(!row.write || !line.address || contents == before) << name;
    }
    EXPECT_TRUE(row.write || contents == before) << row.name;
    std::printf("%s: %u of %u found\n", row.name, found, count);
  }
}

// Lines that act in 30 % of the accesses: found or not, none is named as one that always acts.
TEST(locate_flash, takes_no_fault_that_comes_and_goes_for_one_that_stays) {
  const auto lines = models::line_faults(models::memory_kind::flash, 1, 25);
  for (const bool full : {true, false}) {
    auto contents = full ? noise(512, sector_bytes) : blank();
    size_t found = 0;
    for (size_t i = 3; i < lines.size(); i += every) {
      std::string error;
      const auto asked =
          sim::fault_parse(models::notation(lines[i].fault) + " p=300000 seed=" + std::to_string(i), &error);
      ASSERT_TRUE(asked) << error;
      auto fault = models::chip_fault_of(*asked);
      fault.commands = !full;
      chip_bus bus(models::memory(contents), std::span(&fault, 1));
      part_result result;
      locate::locate_flash_lines(&bus, 16, false, &result);
      found += result.findings.empty() ? 0U : 1U;
      EXPECT_TRUE(result.findings.empty() || result.findings[0].intermittent) << asked->text;
    }
    EXPECT_GE(found, lines.size() / every / 2);
  }
}

TEST(locate_flash, finds_nothing_in_a_healthy_chip_whatever_it_holds) {
  const std::pair<const char *, bytes (*)()> rows[] = {
      {"blank", blank},
      {"zeros", [] { return bytes(models::flash_bytes, 0); }},
      {"full", [] { return noise(512, sector_bytes); }},
      {"partly full", [] { return noise(512, 0x1000); }},
      {"text", [] { return text(300, false); }},
      {"even text", [] { return text(300, true); }},
      {"one sector of text", [] { return text(1, false); }},
      {"two sectors alike", twins},
      {"all sectors alike", all_alike},
  };
  for (const auto &[name, make] : rows) {
    auto contents = make();
    const auto before = contents;
    for (const bool write : {false, true}) {
      chip_bus bus(models::memory(contents), {});
      part_result result;
      locate::locate_flash_lines(&bus, 1, write, &result);
      EXPECT_TRUE(result.findings.empty()) << name << ": " << result.findings.front().sentence;
      EXPECT_TRUE(contents == before && (write || bus.operations() == 0)) << name;
      EXPECT_TRUE(bus.chip().reads_plainly() && bus.chip().is_idle()) << name;
    }
  }
}

}  // namespace

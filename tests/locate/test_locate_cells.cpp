// The cells of the NVRAM, on the models: drawn bad cells are named, with the cells that disturb them.
#include <gmock/gmock.h>

#include "locate/nvram_cells.h"
#include "models/single_faults.h"
#include "tests/locate/model_ram.h"
#include "tests/support/run.h"

namespace {

using testing::Contains;
using testing::HasSubstr;

constexpr uint32_t bytes = 0x400;

// So many faults are drawn of each kind; all of a measurement by the variable.
unsigned draws() {
  const char *const asked = getenv("LOCATE_DRAWS");
  return asked == nullptr ? 3 : static_cast<unsigned>(strtoul(asked, nullptr, 10));
}

models::chip_fault draw(const models::cell_variant &kind, std::mt19937 *random) {
  models::chip_fault fault{.id = kind.id, .level = kind.level, .vlevel = kind.vlevel};
  fault.bit = (*random)() % 8;
  fault.vbit = (*random)() % 8;
  fault.offset = (*random)() % bytes;
  // Every fourth pair is in one word.
  fault.victim = (*random)() % 4 == 0 ? fault.offset ^ 1U : (*random)() % bytes;
  if (fault.victim == fault.offset) fault.vbit = fault.bit ^ 3U;
  return fault;
}

TEST(locate_cells, names_drawn_cells_and_what_disturbs_them) {
  unsigned seed = 7;
  std::mt19937 random(seed);
  size_t pairs = 0;
  size_t cells = 0;
  size_t named = 0;
  for (const auto &kind : models::cell_variants(models::memory_kind::nvram)) {
    for (unsigned i = 0; i < draws(); ++i) {
      const auto fault = draw(kind, &random);
      const auto text = models::notation(fault);
      SCOPED_TRACE(text);
      model_ram ram(text, 3 + i % 5, bytes);
      const temp_dir dir;
      locate::journal kept(dir.path(), "nvram0");
      kept.start();
      locate::part_result result;
      locate::locate_cells(&ram, 0, {}, &kept, &result);
      ++(kind.two_cells ? pairs : cells);
      EXPECT_EQ(result.findings.size(), 1U);
      if (result.findings.empty()) continue;
      const auto &what = result.findings[0];
      const auto victim = kind.two_cells ? fault.victim : fault.offset;
      const auto bit = kind.two_cells ? fault.vbit : fault.bit;
      EXPECT_THAT(what.sentence, HasSubstr(locate::hex(victim, 4) + " bit " + std::to_string(bit))) << what.sentence;
      EXPECT_THAT(what.candidates, Contains(text)) << what.sentence;
      named += static_cast<size_t>(testing::Value(what.candidates, Contains(text)));
      for (const auto &[at, bits] : ram.changed())
        EXPECT_EQ(at, victim & ~1U);
    }
  }
  std::cout << named << " named of " << cells << " cells and " << pairs << " pairs\n";
}

TEST(locate_cells, finds_nothing_in_good_cells_and_keeps_them) {
  for (unsigned seed = 0; seed < 5; ++seed) {
    model_ram ram("", seed);
    const temp_dir dir;
    locate::journal kept(dir.path(), "nvram0");
    kept.start();
    locate::part_result result;
    locate::locate_cells(&ram, 0, {}, &kept, &result);
    EXPECT_TRUE(result.findings.empty());
    EXPECT_TRUE(ram.changed().empty());
    // March and tour, and once more to save, to read again, to restore and to look.
    EXPECT_EQ(ram.accesses(), (22U + 4 + 144 + 4) * 0x4000);
  }
}

}  // namespace

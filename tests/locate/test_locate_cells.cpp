// The cells of the NVRAM, on the models: drawn bad cells are named, with the cells that disturb them.
#include "locate/nvram_cells.h"
#include "models/single_faults.h"
#include "tests/locate/model_ram.h"
#include "tests/support/run.h"

namespace {

constexpr uint32_t bytes = 0x400;

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
  for (const auto &kind : models::cell_variants(models::memory_kind::nvram)) {
    for (unsigned i = 0; i < number_from("LOCATE_DRAWS", 3); ++i) {
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
      for (const auto &[at, bits] : ram.changed())
        EXPECT_EQ(at, victim & ~1U);
    }
  }
  std::cout << cells << " cells and " << pairs << " pairs\n";
}

}  // namespace

// The board families and the queries on boards in this process, compared with what went over their buses.
#include "platform/mfgd/uspace/utils/sprom/at24c512.h"
#include "platform/mfgd/uspace/utils/sprom/pca9539.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_api.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_family.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_pellin.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_tosk.h"
#include "post/dorvan/sprom_dorvan.h"
#include "tests/support/new_board.h"
#include "tests/support/sprom_image.h"

namespace {

using words = std::vector<std::string>;

// What went over the buses since the last call, as the board's log has it, "; " between the lines. An EEPROM's single
// bytes are counted, as in "i2c-1:52 r 8 *334"; what it does not answer is left out, as it may be busy. Of the data
// that are written, an EEPROM's second address byte, which only bus 6 does without, is none.
std::string log_of(test_board &board) {
  static const std::regex byte("(i2c-[0-9]+:5. (?:r 8|w 24) |i2c-6:5. w 16 ).*"), no_answer("i2c-[0-9]+:5. [RW] .*");
  words entries;
  std::string counted;
  size_t count = 0;
  for (const std::string &line : board.log()) {
    std::smatch found;
    if (std::regex_match(line, no_answer)) continue;
    const std::string head = std::regex_match(line, found, byte) ? found.str(1) + "*" : "";
    count = !head.empty() && head == counted ? count + 1 : 1;
    if (count > 1) entries.pop_back();
    counted = head;
    entries.push_back(head.empty() ? line : head + std::to_string(count));
  }
  return joined(entries);
}

std::vector<uint8_t> eeprom(const test_board &board, const std::string &name) {
  const std::string chip = board.contents(("eeprom-" + name).c_str());
  return {chip.begin(), chip.end()};
}

TEST(sprom_families, have_a_cache_for_each_image_but_a_modules_and_one_for_all_dimms) {
  std::set<const uint8_t *> caches{nullptr};
  for (const sprom_t *sprom : {&pellin_sprom_bp, &pellin_sprom_sup, &pellin_sprom_ps[0], &pellin_sprom_ps[1],
                               &pellin_sprom_dimm[0], &tosk_sprom_bp, &tosk_sprom_sup, &tosk_sprom_ps[0],
                               &tosk_sprom_ps[1], &tosk_sprom_dimm[0], &dorvan_sprom_sup, &dorvan_sprom_bp})
    EXPECT_TRUE(caches.insert(sprom->buf).second && sprom->valid == 0) << sprom->name;
  for (const sprom_t &module : {pellin_sprom_lc[0], pellin_sprom_lc[1], pellin_sprom_lc[2], tosk_sprom_lc[0]})
    EXPECT_EQ(module.buf, nullptr);
  EXPECT_EQ(pellin_sprom_dimm[0].buf, pellin_sprom_dimm[1].buf);
  EXPECT_EQ(tosk_sprom_dimm[0].buf, tosk_sprom_dimm[1].buf);
  for (const sprom_t *sprom : {&dorvan_sprom_sup, &dorvan_sprom_bp})  // which whole runs read, but do not write
    EXPECT_TRUE(sprom->we != nullptr && sprom->wd != nullptr && sprom->we != sprom->wd) << sprom->name;
}

TEST(sprom_families, answer_to_sprom_addresses) {
  // clang-format off
  const struct { uint32_t slot, index; sprom_t *pellin, *tosk; } rows[]{
      {0, 0, &pellin_sprom_bp,    &tosk_sprom_bp},    {0, 1, &pellin_sprom_ps[0], &tosk_sprom_ps[0]},
      {0, 2, &pellin_sprom_ps[1], &tosk_sprom_ps[1]}, {0, 3, nullptr, nullptr},   {0, UINT32_MAX, nullptr, nullptr},
      {1, 0, nullptr, nullptr},                       {1, 1, &pellin_sprom_sup,   &tosk_sprom_sup},
      {1, 2, &pellin_sprom_lc[0], nullptr},           {1, 3, nullptr, nullptr},
      {2, 0, &pellin_sprom_lc[1], &tosk_sprom_lc[0]}, {2, 7, &pellin_sprom_lc[1], &tosk_sprom_lc[0]},
      {3, 0, &pellin_sprom_lc[2], nullptr},           {3, UINT32_MAX, &pellin_sprom_lc[2], nullptr},
      {4, 0, nullptr, nullptr},                       {UINT32_MAX, 1, nullptr, nullptr}};
  // clang-format on
  using get_slot = int32_t (*)(uint32_t, uint32_t *, uint32_t *);
  const std::pair<get_slot, uint32_t> slots[]{
      {sprom_get_slot_sup, 1}, {sprom_get_slot_bp, 0}, {sprom_get_slot_chassis, 0}};
  for (const uint32_t platform : {0U, 1U, 2U, 3U, UINT32_MAX}) {
    const bool known = platform == 0 || platform == 2;
    for (const auto &[slot, index, pellin, tosk] : rows)
      EXPECT_EQ(sprom_init(platform, slot, index), platform == 0 ? pellin : platform == 2 ? tosk : nullptr);
    for (const auto &[get, expected] : slots) {
      uint32_t slot = 77, index = 78;
      EXPECT_EQ(get(platform, &slot, &index), known ? 0 : -22);
      EXPECT_EQ(std::pair(slot, index), known ? std::pair(expected, expected) : std::pair(77U, 78U));
    }
  }
}

// What a probe does on the buses to see the straps; with `second` by the other expander, as the first one does not
// answer. Then it may read the supervisor's image.
std::string straps_read(unsigned straps, bool second) {
  constexpr const char *first_pairs[]{"3fff", "7fff", "bfff", "ffff"};
  constexpr const char *second_pairs[]{"ff3f", "ff7f", "ffbf", "ffff"};
  if (second) return std::string{"i2c-8:76 W 8 0x0 0x00; i2c-8:26 r 16 0x0 0x"} + second_pairs[straps];
  return std::string{"i2c-8:76 w 8 0x0 0x00; i2c-8:76 r 16 0x1 0x"} + first_pairs[straps];
}
constexpr const char *image_read = "i2c-1:52 w 16 0x0 0x0000; i2c-1:52 r 8 *334";
constexpr const char *no_first = "i2c-fail bus=8 addr=0x76 times=0";
constexpr const char *no_second = "i2c-fail bus=8 addr=0x26 times=0 errno=110";
constexpr const char *no_eeprom = "i2c-fail bus=1 addr=0x52 times=0 errno=110";
constexpr const char *bad_image = "sprom-corrupt image=sup block=main offset=8 xor=3";
constexpr const char *bad_image_line = "Supervisor Main block checksum mismatch.  Found 0x01f5, expected 0x01f8.\n";

// What is read after the straps, and the results.
// clang-format off
struct board_case { uint32_t card; unsigned straps; const char *fault, *pellin_reads, *tosk_reads;
                    int32_t pellin, tosk, platform; };
const board_case boards[]{
    // card  fault       reads                    results
    {11004, 0, "",        "",         image_read, 0,    2,    0},
    {11003, 2, "",        image_read, "",         0,    2,    0},
    {11004, 2, "",        image_read, "",         -22,  2,    2},
    {11003, 1, "",        image_read, image_read, 0,    -22,  0},
    {11005, 3, "",        image_read, image_read, 0,    -22,  0},
    {11006, 3, "",        image_read, image_read, 0,    -22,  0},
    {11007, 3, "",        image_read, image_read, 0,    -22,  0},
    {11008, 3, "",        image_read, image_read, 0,    -22,  0},
    {11004, 1, "",        image_read, image_read, -22,  2,    2},
    {11002, 3, "",        image_read, image_read, -22,  -22,  -22},
    {11009, 3, "",        image_read, image_read, -22,  -22,  -22},
    {11004, 3, bad_image, image_read, image_read, -22,  -22,  -22},
    {11004, 2, no_eeprom, "",         "",         -110, 2,    2},
    {11004, 0, no_first,  "",         image_read, 0,    2,    0},
    {11004, 2, no_first,  image_read, "",         -22,  2,    2},
    {11008, 1, no_first,  image_read, image_read, 0,    -22,  0},
};
// clang-format on

TEST(sprom_families, are_recognised_by_straps_and_card_index) {
  for (const board_case &c : boards) {
    SCOPED_TRACE(std::to_string(c.card) + ", " + std::to_string(c.straps) + ", " + c.fault);
    const words options{"--family=pellin", "--card=" + std::to_string(c.card),
                        c.straps != 0 ? "straps value=" + std::to_string(c.straps) : "", c.fault};
    const std::string lines = c.fault == std::string{bad_image} ? bad_image_line : "";
    const std::string straps = straps_read(c.straps, c.fault == std::string{no_first});
    const std::string pellin = joined({straps, c.pellin_reads}), tosk = joined({straps, c.tosk_reads});
    on_new_board(options, [&](test_board &board) {
      EXPECT_EQ(printed([&] { EXPECT_EQ(sprom_platform_probe_tosk(), c.tosk); }), lines);
      EXPECT_EQ(log_of(board), tosk);
      EXPECT_EQ(printed([&] { EXPECT_EQ(sprom_platform_probe_pellin(), c.pellin); }), lines);
      EXPECT_EQ(log_of(board), pellin);
    });
    on_new_board(options, [&](test_board &board) {
      const std::string output = lines + lines + (c.platform < 0 ? " platform undefined" : "");
      EXPECT_EQ(printed([&] { EXPECT_EQ(sprom_get_platform(), c.platform); }), output);
      EXPECT_EQ(log_of(board), joined({pellin, c.pellin != 0 ? tosk : ""}));
      // An image once read stands in the family's cache, a bad one too.
      EXPECT_EQ(printed([&] { EXPECT_EQ(sprom_get_platform(), c.platform); }), output);
      EXPECT_EQ(log_of(board), joined({straps, c.pellin != 0 ? straps : ""}));
    });
  }
  // With neither expander, the second one's result is told.
  on_new_board({"--family=pellin", no_first, no_second}, [](test_board &board) {
    EXPECT_EQ(sprom_platform_probe_pellin(), -110);
    EXPECT_EQ(log_of(board), "i2c-8:76 W 8 0x0 0x00; i2c-8:26 R 0 0x0 0x0");
    EXPECT_EQ(sprom_platform_probe_tosk(), -110);
    EXPECT_EQ(printed([] { EXPECT_EQ(sprom_get_platform(), -22); }), " platform undefined");
  });
}

// The transactions of an SPROM's hooks. The protect pin is high and an input at power-on; `again` is what we does once
// it is an output.
struct hooks {
  words we, again, wd;
};
// An expander's: what its pairs hold with the pin low.
hooks pin_hooks(const std::string &dev, const std::string &low) {
  const auto read = [&](const std::string &reg, const std::string &pair) {
    return dev + " w 8 0x0 0x" + reg + "; " + dev + " r 16 0x1 0x" + pair;
  };
  const auto write = [&](const std::string &pair) { return dev + " w 24 0x0 0x" + pair; };
  return {{read("06", "ffff"), write("06" + low), read("02", "ffff"), write("02" + low)},
          {read("06", low), read("02", "ffff"), write("02" + low)},
          {read("02", low), write("02ffff")}};
}
const words port_off{"port r 32 0x50c 0x6b5a3c41", "port w 32 0x50c 0x635a3c41"};
const words port_on{"port r 32 0x50c 0x635a3c41", "port w 32 0x50c 0x6b5a3c41"};
const hooks port_hooks{port_off, port_off, port_on};

// An SPROM for each of the hooks, and for none; test_sprom_tool_board writes all the others, too.
// clang-format off
struct hook_case { const char *family; sprom_t *sprom; const char *eeprom; hooks expected; const char *expander; };
const hook_case hook_cases[]{
    {"--family=pellin", &pellin_sprom_sup,   "1-52",  port_hooks,                    nullptr},
    {"--family=pellin", &pellin_sprom_lc[0], "17-52", pin_hooks("i2c-20:76", "fffd"), "bus=20 addr=0x76"},
    {"--family=pellin", &pellin_sprom_lc[1], "23-52", pin_hooks("i2c-23:75", "f7ff"), "bus=23 addr=0x75"},
    {"--family=pellin", &pellin_sprom_lc[2], "7-52",  pin_hooks("i2c-7:75", "f7ff"),  "bus=7 addr=0x75"},
    {"--family=tosk",   &tosk_sprom_sup,     "1-52",  port_hooks,                    nullptr},
    {"--family=tosk",   &tosk_sprom_lc[0],   "7-52",  pin_hooks("i2c-7:75", "f7ff"),  "bus=7 addr=0x75"},
    {"--family=tosk",   &tosk_sprom_ps[0],   "6-52",  {},                            nullptr},
};
// clang-format on

TEST(sprom_write_protection, is_lifted_for_each_write_and_restored) {
  for (const hook_case &c : hook_cases) {
    SCOPED_TRACE(std::string{c.family} + " " + c.sprom->name);
    on_new_board({c.family}, [&](test_board &board) {
      const auto size = static_cast<size_t>(sprom_get_size(c.sprom));
      auto chip = eeprom(board, c.eeprom);
      std::vector<uint8_t> image(size);
      EXPECT_EQ(sprom_read(c.sprom, image.data()), 0);
      EXPECT_EQ(image, host_image({chip.begin(), chip.begin() + static_cast<ptrdiff_t>(size)}, c.sprom->type));
      (void)log_of(board);
      std::string writes = std::string{"i2c-"} + c.eeprom + (c.sprom->type == SPROM_TYPE_PS ? " w 16 *" : " w 24 *");
      writes[writes.rfind('-')] = ':';
      for (const words &we : {c.expected.we, c.expected.again}) {
        image[60] = ++chip[60];
        EXPECT_EQ(sprom_write(c.sprom, image.data()), 0);
        EXPECT_TRUE(std::equal(image.begin(), image.end(), chip.begin()));
        EXPECT_EQ(eeprom(board, c.eeprom), chip);
        EXPECT_EQ(log_of(board), joined({joined(we), writes + std::to_string(size), joined(c.expected.wd)}));
        image = host_image(image, c.sprom->type);
      }
      EXPECT_NE(run_child([] { (void)inl(0x50C); }).status, 0) << "the privilege is dropped";
    });
  }
}

// The transactions up to the nth, which fails at its first message.
std::string failing(const words &transactions, size_t nth) {
  const auto end = transactions.begin() + static_cast<ptrdiff_t>(nth);
  std::string last = transactions[nth].substr(0, transactions[nth].find(';'));
  last[last.find(" w ") + 1] = 'W';
  return joined({joined({transactions.begin(), end}), last});
}

TEST(sprom_write_protection, ends_a_hook_at_any_failing_transaction) {
  for (const hook_case &c : hook_cases) {
    if (c.expander == nullptr) continue;
    for (size_t nth = 0; nth < 6; ++nth) {
      const std::string fault = std::string{"i2c-fail "} + c.expander + " nth=" + std::to_string(nth + 1);
      on_new_board({c.family, fault}, [&](test_board &board) {
        EXPECT_EQ(c.sprom->we(), nth < 4 ? -5 : 0);
        EXPECT_EQ(log_of(board), nth < 4 ? failing(c.expected.we, nth) : joined(c.expected.we));
        if (nth < 4) return;
        EXPECT_EQ(c.sprom->wd(), -5);
        EXPECT_EQ(log_of(board), failing(c.expected.wd, nth - 4));
      });
    }
  }
}

TEST(sprom_write_protection, is_restored_after_a_write_that_stops_or_changes_nothing) {
  const std::string off = joined(port_off), on = joined(port_on), all = "i2c-1:52 w 24 *334";
  // clang-format off
  const struct { const char *fault; int32_t result; size_t arrived; std::string log; } cases[]{
      {"i2c-fail bus=1 addr=0x52 nth=1",   -5, 0,   joined({off, on})},
      {"i2c-fail bus=1 addr=0x52 nth=2",   -5, 1,   joined({off, "i2c-1:52 w 24 *1", on})},
      {"i2c-fail bus=1 addr=0x52 nth=200", -5, 199, joined({off, "i2c-1:52 w 24 *199", on})},
      {"i2c-fail bus=1 addr=0x52 nth=334", -5, 333, joined({off, "i2c-1:52 w 24 *333", on})},
      {"eeprom-protected bus=1 addr=0x52", 0,  0,   joined({off, all, on})},
      {"port-stuck bit=27 level=1",        0,  0,   joined({off, all, port_off[0], port_on[1]})},
      {"iopl-refused",                     0,  0,   all},
  };
  // clang-format on
  for (const auto &c : cases) {
    SCOPED_TRACE(c.fault);
    on_new_board({"--family=tosk", c.fault}, [&](test_board &board) {
      auto chip = eeprom(board, "1-52");
      auto image = host_image(SPROM_TYPE_SUP);
      EXPECT_EQ(sprom_write(&tosk_sprom_sup, image.data()), c.result);
      std::copy_n(image.begin(), c.arrived, chip.begin());
      EXPECT_EQ(eeprom(board, "1-52"), chip);
      EXPECT_EQ(log_of(board), c.log);
    });
  }
}

TEST(sprom_write_protection, of_the_mezzanine_follows_the_environment_at_each_call) {
  on_new_board({"--family=pellin"}, [](test_board &board) {
    constexpr const char *early = "i2c-20:76 w 24 0x0 0x027fff";
    constexpr const char *later = "i2c-20:76 w 24 0x0 0x02fffd";
    const std::pair<const char *, const char *> cases[]{
        {"", early},    {"0", early},           {"0x0", early},
        {" 00", early}, {"P1", early},          {"5", later},
        {"010", later}, {"0x100000000", later}, {"99999999999999999999", later}};
    for (const auto &[bits, low] : cases) {
      SCOPED_TRACE(bits);
      EXPECT_EQ(setenv("DIAG_HW_CHANGE_BITS", bits, 1), 0);
      EXPECT_EQ(velto_mt_varnholm_sprom_we(), 0);
      EXPECT_THAT(log_of(board), EndsWith(low));
      EXPECT_EQ(velto_mt_varnholm_sprom_wd(), 0);
      EXPECT_THAT(log_of(board), EndsWith("i2c-20:76 w 24 0x0 0x02ffff"));
    }
  });
}

// Whichever way the expander's input register shows it.
TEST(sprom_write_protection, is_told_by_the_level_of_its_own_pin) {
  on_new_board({"--family=pellin"}, [](test_board &) {
    const sprom_t &sprom = pellin_sprom_lc[2];
    const sprom_wiring_t wiring = sprom_wiring_pellin(&sprom);
    ASSERT_EQ(wiring.by, sprom_wiring_t::PIN);
    for (const auto inverted : {uint16_t{0}, wiring.pin, static_cast<uint16_t>(~wiring.pin)}) {
      SCOPED_TRACE(inverted);
      uint16_t polarity = inverted;
      EXPECT_EQ(wiring.expander->smb_wr(wiring.expander->dev, PCA9539_POLARITY, sizeof polarity, &polarity), 0);
      EXPECT_EQ(sprom_is_protected(&wiring), 1);
      EXPECT_EQ(sprom.we(), 0);
      EXPECT_EQ(sprom_is_protected(&wiring), 0);
      EXPECT_EQ(sprom.wd(), 0);
    }
  });
}

TEST(sprom_queries, read_fields_from_the_device_past_base_and_cache) {
  on_new_board({"--family=pellin", "--change-bits=0x102030405060708"}, [](test_board &board) {
    const auto chip = eeprom(board, "1-52");
    std::array<char, 22> text;
    uint64_t bits = 0;
    uint16_t card = 0;
    pellin_sprom_bp.valid = pellin_sprom_sup.valid = 1;
    text.fill('#');
    EXPECT_EQ(sprom_get_sn(&pellin_sprom_bp, text.data()), 0);
    EXPECT_EQ(std::string(text.data(), 22), std::string(&chip[0x1036], &chip[0x104A]) + "##");
    text.fill('#');
    EXPECT_EQ(sprom_get_pid(&pellin_sprom_sup, text.data()), 0);
    EXPECT_EQ(std::string(text.data(), 22), std::string(&chip[34], &chip[54]) + "##");
    EXPECT_EQ(sprom_get_hw_change(&pellin_sprom_lc[1], &bits), 0);
    EXPECT_EQ(bits, 0x0102030405060708U);
    EXPECT_EQ(sprom_get_card_index(&pellin_sprom_sup, &card), 0);
    EXPECT_EQ(card, 11003);
    EXPECT_EQ(log_of(board),
              "i2c-1:52 w 16 0x0 0x1036; i2c-1:52 r 8 *20; i2c-1:52 w 16 0x0 0x0022; i2c-1:52 r 8 *20; "
              "i2c-23:52 w 16 0x0 0x00ae; i2c-23:52 r 8 *8; i2c-1:52 w 16 0x0 0x00b6; i2c-1:52 r 8 *2");
  });
}

template <auto get, typename T>
int32_t ask(const sprom_t *sprom, void *output) {
  return get(sprom, static_cast<T *>(output));
}
// With the output that may not be null.
// clang-format off
const struct query { const char *name; int32_t (*get)(const sprom_t *, void *); const char *asserted; } queries[]{
    {"sprom_get_pid",        ask<sprom_get_pid, char>,            "pid"},
    {"sprom_get_sn",         ask<sprom_get_sn, char>,             "sn"},
    {"sprom_get_hw_change",  ask<sprom_get_hw_change, uint64_t>,  nullptr},
    {"sprom_get_card_index", ask<sprom_get_card_index, uint16_t>, nullptr},
};
// clang-format on

TEST(sprom_queries, hand_on_a_failure) {
  on_new_board({"--family=tosk", "i2c-fail bus=1 addr=0x52 times=0 nth=3"}, [](test_board &) {
    alignas(8) std::array<char, 20> output;
    for (const query &q : queries)
      EXPECT_EQ(q.get(&tosk_sprom_sup, output.data()), -5) << q.name;
    EXPECT_EQ(sprom_get_sn(&tosk_sprom_bp, output.data()), -5);
  });
}

TEST(sprom_queries_DeathTest, refuse_kinds_before_anything_else_and_assert_their_arguments) {
  static constexpr smb_acc_t no_read{&pellin_bp_dev, nullptr, at24c512_wr};
  for (const query &q : queries) {
    const auto dies = [&](const sprom_t *sprom, const std::string &text) {
      EXPECT_DEATH((void)q.get(sprom, nullptr), HasSubstr(std::string{q.name} + ": Assertion `" + text + "' failed"));
    };
    dies(nullptr, "sprom");
    if (q.asserted != nullptr) dies(&pellin_sprom_sup, q.asserted);
    for (const uint32_t type : {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, UINT32_MAX}) {
      SCOPED_TRACE(type);
      const sprom_t no_acc{nullptr, nullptr, nullptr, "", type, 0, nullptr};
      const sprom_t no_rd{&no_read, nullptr, nullptr, "", type, 0, nullptr};
      const bool has_field = type == 1 || type == 3 || (type == 2 && q.get != queries[3].get);
      if (!has_field) {
        EXPECT_EQ(q.get(&no_acc, nullptr), -22);
        continue;
      }
      dies(&no_acc, "smb_acc");
      dies(&no_rd, "smb_acc->smb_rd");
    }
  }
}

}  // namespace

// The NVRAM driver and the NVRAM test.
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "post/nvram.h"
#include "post/post_tbl.h"
#include "tests/product/driver_board.h"
#include "tests/support/signals.h"

namespace {

// Puts these lengths of the regions into the PCI list.
void set_lengths(uint32_t length0, uint32_t length1, uint32_t length2) {
  const char line[] = "2e00 10b59030 10 0 0 f4000000 f4010000 f4020000 f8000000 0 0 0 %x %x %x 4000000 0\n";
  std::ofstream(board().file("proc/bus/pci/devices")) << format(line, length0, length1, length2);
}

TEST(nvram_driver, maps_all_regions_with_the_largest_length) {
  expect_start(
      nvram_sw_init, nvram_libinit, "hw_acc_wr_lk_acq", [] { (void)nvram_wr(0, 0, 0); },
      "nvram_sw_init(): mmap_acc_init( mmap_info, RTC_NVRAM_DEV_NAME, Inst, addr, len, 2, dev)\n");
  on_board("--card=11062", [] {
    set_lengths(0x1000, 0x3000, 0x2000);
    EXPECT_EQ(nvram_libinit(), HW_SUCCESS);
    EXPECT_EQ(events(), "pci 18\npci 1c\npci 20\nmap RTC_NVRAM 3 x 2 3000 f4000000..f4020000\n");
    EXPECT_EQ(nvram_sw_init(), HW_SUCCESS);
    EXPECT_EQ(events(), "pci 18\npci 1c\npci 20\n");
    uint16_t value = 0;
    EXPECT_EQ(nvram_wr(1, 0xA, 0xBEEF) + nvram_rd(1, 0xA, &value), HW_SUCCESS);
    EXPECT_EQ(value, 0xBEEF);
    EXPECT_EQ(events(),
              "+w RTC_NVRAM1-write.lock\nnvram1 w 16 0xa 0xbeef\n-RTC_NVRAM1-write.lock\n"
              "+r RTC_NVRAM1-read.lock\nnvram1 r 16 0xa 0xbeef\n-RTC_NVRAM1-read.lock\n");
    EXPECT_EQ(nvram_sw_finish(), HW_SUCCESS);
    EXPECT_EQ(events(), "unmap\nrelease\n");
    EXPECT_EQ(nvram_sw_init(), HW_SUCCESS);
    EXPECT_EQ(events(), "pci 18\npci 1c\npci 20\n") << "started for good";
  });
}

// Messages, of which only those of failing slots are seen: all come under the lock, from the inside out.
TEST(nvram_driver, traces_and_reports_its_calls) {
  const auto expect = [](auto call, const std::string &op, const std::string &outer, const std::string &inner) {
    const std::string rc = "\n           with rc 411 (HW_ERR_INV_PARAM)\n";
    const std::string first = "## Error : Failed " + inner + rc, second = "## Error : Failed " + outer + rc;
    std::string text;
    for (const hook_line &line : hooks_of([&] { EXPECT_EQ(call(), HW_ERR_INV_PARAM); }, true))
      text += line.text;
    EXPECT_EQ(text, "lock 2\n" + op + "(): " + outer + "\n_" + op + "(): " + inner + "\n" + first + first + second +
                        second + "unlock 2\n");
  };
  on_board("--card=11062", [&] {
    change_acc = [](hw_acc_cb_t *cb) {
      cb->m_rd_lk_acq = cb->m_wr_lk_acq = [](uint32_t inst, void *) { return cli_printf("lock %u\n", inst), 0U; };
      cb->m_rd_lk_rel = cb->m_wr_lk_rel = [](uint32_t inst, void *) { return cli_printf("unlock %u\n", inst), 0U; };
      cb->m_rd = [](uint32_t, uint32_t, uint32_t *data, void *) { return *data = 0xDEAD1234, HW_ERR_INV_PARAM + 0; };
      cb->m_wr = [](uint32_t, uint32_t, uint32_t, void *) { return HW_ERR_INV_PARAM + 0; };
    };
    EXPECT_EQ(nvram_sw_init(), HW_SUCCESS);
    uint16_t value = 0;
    expect([&] { return nvram_rd(2, 4, &value); }, "nvram_rd", "_nvram_rd(Inst, offset, &tmp)",
           "hw_acc_rd( dev, Inst, offset, val)");
    EXPECT_EQ(value, 0x1234);
    expect([] { return nvram_wr(2, 4, 1); }, "nvram_wr", "_nvram_wr(Inst, offset, val)",
           "hw_acc_wr( dev, Inst, offset, val)");
  });
}

// A run of the test. Returns the cycles, look-ups and output.
std::string run(uint32_t expected_status) {
  (void)events();
  uint32_t result = 99;
  const int before = blocks;
  const std::string said = stdout_of([&] { EXPECT_EQ(dorvan_nvram_test(0, &result, 0, nullptr), expected_status); });
  EXPECT_EQ(blocks, before);
  EXPECT_EQ(result, expected_status == 0 ? POST_RESULT_PASS : POST_RESULT_FAIL);
  return events("+-ms") + said;
}

// The same from the start, on `length` bytes of NVRAM 0 and 4 of the others.
std::string run(uint32_t length, uint32_t expected_status) {
  EXPECT_EQ(nvram_sw_init(), HW_SUCCESS);
  set_lengths(length, 4, 4);
  return run(expected_status);
}

const auto writes = [](const words_t &words) { return cycles("nvram0 w", words); };
const auto reads = [](const words_t &words) { return cycles("nvram0 r", words); };

// So many words of NVRAM 0, as they are saved and written back.
words_t first_words(uint32_t count) {
  std::vector<uint16_t> contents(0x4000);
  std::memcpy(contents.data(), board().contents("nvram0").data(), 0x8000);
  words_t words;
  for (uint32_t i = 0; i < count; ++i)
    words.push_back({2 * i, contents[i]});
  return words;
}

TEST(nvram_test, makes_these_bus_cycles) {
  on_board("--card=11096", [] {
    std::string data = reads(first_words(1));
    for (uint32_t bit = 1; bit <= 0x8000; bit *= 2)
      data += writes({{0, bit}}) + reads({{0, bit}});
    data += writes(first_words(1));
    constexpr uint32_t a = 0xAAAA, b = 0x5555;
    // For address 0, then for that of each line.
    const std::string lines = writes({{2, a}, {4, a}, {0, b}}) + reads({{2, a}, {4, a}}) + writes({{0, a}}) +
                              writes({{2, b}}) + reads({{0, a}, {2, b}, {4, a}}) + writes({{2, a}}) + writes({{4, b}}) +
                              reads({{0, a}, {2, a}, {4, b}}) + writes({{4, a}});
    std::string cells = writes({{0, 1}, {2, 2}, {4, 3}, {6, 4}});
    for (uint32_t i = 0; i < 4; ++i)
      cells += reads({{2 * i, i + 1}}) + writes({{2 * i, 0xFFFE - i}});
    cells += reads({{0, 0xFFFE}, {2, 0xFFFD}, {4, 0xFFFC}, {6, 0xFFFB}});
    EXPECT_EQ(run(16, 0), "pci 18\n" + reads(first_words(8)) + data + reads(first_words(3)) + lines +
                              writes(first_words(3)) + cells + writes(first_words(8)));
    // Without address lines both patterns are written and nothing is compared.
    EXPECT_EQ(run(4, 0), "pci 18\n" + reads(first_words(2)) + data + reads(first_words(1)) + writes({{0, b}, {0, a}}) +
                             writes(first_words(1)) + writes({{0, 1}}) + reads({{0, 1}}) + writes({{0, 0xFFFE}}) +
                             reads({{0, 0xFFFE}}) + writes(first_words(2)));
  });
}

TEST(nvram_test, covers_each_length_and_only_words_that_begin_in_it) {
  on_board("--card=11061", [] {
    EXPECT_EQ(run(0, 0) + run(1, 0), "pci 18\npci 18\n");
    count_signals();
    // Length, address lines, last offset of the pattern phase.
    const uint32_t cases[][3] = {{2, 0, 0}, {3, 0, 0},  {5, 0, 0},    {6, 1, 2},        {7, 1, 2},
                                 {8, 1, 2}, {12, 0, 4}, {31, 3, 0xE}, {0x102, 0, 0x80}, {0x8000, 13, 0x3FFE}};
    for (const auto &[length, lines, last] : cases) {
      const std::string log = run(length, 0);
      const std::string end = reads({{last, ~(last / 2 + 1) & 0xFFFF}}) + writes(first_words((length + 1) / 2));
      EXPECT_TRUE(log.ends_with(end)) << length;
      uint32_t aliases_looked_for = 0;
      for (size_t at = 0; (at = log.find(" 0x5555\nnvram0 r 16 0x0 ", at)) != std::string::npos; ++at)
        ++aliases_looked_for;
      EXPECT_EQ(aliases_looked_for, lines) << length;
      EXPECT_EQ(log.find(format(" 16 0x%x ", (length + 1) & ~1U)), std::string::npos) << length;
    }
    EXPECT_LE(signals, 10) << "the moves of the driver become the board's jumps";
  });
}

// After a failure of another kind than those of test_full_post. All that was read is written back.
TEST(nvram_test, goes_on_as_far_as_it_can) {
  // No memory for the list of the address phase, or to save the next instance.
  on_board("--card=11062", [] {
    failing_malloc = 1 + 2;
    const std::string saved = writes(first_words(1)) + writes(first_words(8));
    EXPECT_THAT(run(16, 0xFFFFFFFF),
                HasSubstr(writes({{0, 0x8000}}) + reads({{0, 0x8000}}) + saved + "pci 1c\nnvram1 r 16 0x0 "));
  });
  on_board("--fault=nvram-data-stuck instance=0 line=0 level=0", [] {
    failing_malloc = 1 + 2;
    words_t saved = first_words(8);
    for (word_t &word : saved)
      word.data &= 0xFFFE;
    EXPECT_THAT(run(16, 6), HasSubstr(writes({{0, 1}}) + reads({{0, 0}}) + writes(saved) +
                                      "pci 1c\n0x00000000: Expected 0x1 Actual 0x0\nFailed"));
  });
  // A write to an address line's word that changes word 0, too.
  change_acc = [](hw_acc_cb_t *cb) {
    cb->m_wr = [](uint32_t inst, uint32_t offset, uint32_t data, void *parm) {
      if (offset == 4 && data == 0x5555) (void)_mmap_wr16(inst, 0, data, parm);
      return _mmap_wr16(inst, offset, data, parm);
    };
  };
  on_board("--card=11061", [] {
    EXPECT_THAT(run(16, 0xFFFFFFFF), EndsWith(reads({{0, 0x5555}}) + writes(first_words(8)) +
                                              "0x00000000: Expected 0xaaaa Actual 0x5555\nWriting 0x085555 at "
                                              "addr 0x084 -> 0x080 addr alias failure for NVRAM 0\n"));
  });
  change_acc = nullptr;
  // Without its card it does not look for the regions.
  on_board("--fault=sprom-absent",
           [] { EXPECT_EQ(run(16, 1), "Error in opening /dev/sprom for reading. Default card_index to 65535\n"); });
  // A card that is not known may have all three.
  on_board("--fault=sprom-refuse",
           [] { EXPECT_THAT(run(16, 0), ContainsRegex("nvram0 .*pci 1c\nnvram1 .*pci 20\nnvram2 ")); });
  // The kernel's list of functions is gone since the start.
  on_board("--card=11062", [] {
    (void)run(16, 0);
    (void)std::filesystem::remove(board().file("proc/bus/pci/devices"));
    std::string said;
    for (const char *const inst : {"0", "1", "2"})
      said += "Failed to find the region of NVRAM " + std::string(inst) + ": rc 408 (HW_ERR_FILE_IO)\n";
    EXPECT_EQ(run(0xFFFFFFFF), "pci 18\npci 1c\npci 20\n" + said);
  });
}

}  // namespace

// The NVRAM driver and the NVRAM test, on an NVRAM that can be broken.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdio>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/nvram/nvram_acc_velto.h"
#include "post/nvram_test.h"
#include "post/pfm_card.h"
#include "post/post_test.h"
#include "tests/unit/fake_acc.h"
#include "tests/support/host.h"

namespace {

constexpr std::optional<uint16_t> no_card;
std::optional<uint16_t> card_index;

// One broken thing in one instance.
struct fault_t {
  uint32_t inst = 0;
  uint16_t data_high = 0;      // data lines stuck at 1
  uint16_t data_low = 0;       // data lines stuck at 0
  uint32_t address_high = 0;   // address lines stuck at 1
  uint32_t address_low = 0;    // address lines stuck at 0
  uint32_t cell = 0xFFFFFFFF;  // byte offset of a word whose bits ...
  uint16_t cell_low = 0;       // ... cannot be set
  uint16_t cell_high = 0;      // ... cannot be cleared
  uint32_t short_from = 0;     // writing this word ...
  uint32_t short_to = 0;       // ... also writes this one
};

class nvram_model : public bus_device {
 public:
  nvram_model(std::vector<uint32_t> lengths, const fault_t &fault) : length_(std::move(lengths)), fault_(fault) {
    for (const uint32_t length : length_) {
      std::vector<uint16_t> &words = words_.emplace_back(length / 2);
      for (size_t i = 0; i < words.size(); ++i)
        words[i] = static_cast<uint16_t>(0x9E37 * (i + 1));
    }
    for (uint32_t inst = 0; inst < 3; ++inst)
      fake_acc.bars[0x18 + 4 * inst] = {0, inst << 16, length_[inst]};
    fake_acc.device = this;
  }

  uint16_t read(uint32_t inst, uint32_t offset) override {
    const uint16_t word = *at(inst, offset);
    return inst == fault_.inst ? static_cast<uint16_t>((word | fault_.data_high) & ~fault_.data_low) : word;
  }

  void write(uint32_t inst, uint32_t offset, uint16_t data) override {
    uint16_t *const word = at(inst, offset);
    *word = data;
    if (inst != fault_.inst) return;
    if (fault_.short_from != fault_.short_to && offset == fault_.short_from) *at(inst, fault_.short_to) = data;
    if (offset == fault_.cell) *word = static_cast<uint16_t>((data | fault_.cell_high) & ~fault_.cell_low);
  }

  std::vector<std::vector<uint16_t>> words_;

 private:
  uint16_t *at(uint32_t inst, uint32_t offset) {
    if (offset % 2 != 0 || offset + 2 > length_[inst]) {
      ADD_FAILURE() << "access outside the region: " << inst << " " << offset;
      return &nowhere_;
    }
    if (inst == fault_.inst) offset = (offset | fault_.address_high) & ~fault_.address_low;
    return &words_[inst][offset / 2];
  }

  std::vector<uint32_t> length_;
  fault_t fault_;
  uint16_t nowhere_ = 0;
};

// These come first: no test before them may start the driver in this process.

// What a start of the driver in a fresh process does and prints; its status comes last.
std::string start(const fake_acc_t &setup, const std::function<uint32_t()> &body) {
  const outcome child = run_child([&] {
    fake_acc = setup;
    const uint32_t rc = body();
    (void)printf("%src %u\n", log_text().c_str(), rc);
  });
  return child.out + child.err;
}

std::string twice(const std::string &text) {
  return text + text;
}

TEST(nvram_start, finds_and_maps_all_regions_or_none) {
  fake_acc_t healthy;
  healthy.bars = {{0x18, {0, 0xF4000000, 0x8000}}, {0x1C, {0, 0xF4010000, 0x8000}}, {0x20, {0, 0xF4020000, 0x8000}}};
  const std::string lookups = "pci 0x18\npci 0x1c\npci 0x20\n";
  const std::string map = "map RTC_NVRAM 3 x 2 0x8000 @ 0xf4000000 0xf4010000 0xf4020000\n";
  EXPECT_EQ(start(healthy, nvram_sw_init), lookups + map + "init\nrc 0\n");
  EXPECT_EQ(start(healthy, nvram_libinit), lookups + map + "init\nrc 0\n");
  EXPECT_EQ(start(healthy, [] { return nvram_sw_init() + nvram_sw_init(); }),
            lookups + map + "init\n" + lookups + "rc 0\n");
  EXPECT_EQ(start(healthy, [] { return nvram_sw_init() + nvram_sw_finish(); }), lookups + map + "init\nfini\nrc 0\n");

  fake_acc_t setup = healthy;
  setup.bars[0x1C].len = 0x10000;
  const std::string largest = "map RTC_NVRAM 3 x 2 0x10000 @ 0xf4000000 0xf4010000 0xf4020000\n";
  EXPECT_EQ(start(setup, nvram_sw_init), lookups + largest + "init\nrc 0\n");

  // A region that is not there makes the length 0, which the mapping layer does not take.
  setup.bars[0x18].len = 0;
  const std::string none = "map RTC_NVRAM 3 x 2 0x0 @ 0xf4000000 0xf4010000 0xf4020000\n";
  EXPECT_EQ(start(setup, nvram_sw_init), lookups + none + "init\nrc 0\n");

  const auto report = [](const std::string &call, const std::string &rc) {
    return twice("## Error : Failed " + call + "\n           with rc " + rc + "\n");
  };
  for (const uint32_t bar : {0x18U, 0x1CU, 0x20U}) {
    setup = healthy;
    setup.bars[bar].status = PCI_ERR_64_BIT_MEMORY_SPACE;
    EXPECT_EQ(start(setup, nvram_sw_init),
              report("mmap_get_map_pci( HWTYPE_PLX_PCI, 0, bar, &addr, &len)", "3903 (PCI_ERR_64_BIT_MEMORY_SPACE)") +
                  lookups + "rc 3903\n");
  }
  setup = healthy;
  setup.describe_status = HW_ERR_INV_PARAM;
  EXPECT_EQ(start(setup, nvram_sw_init),
            report("mmap_acc_init( mmap_info, RTC_NVRAM_DEV_NAME, Inst, addr, len, 2, dev)", "411 (HW_ERR_INV_PARAM)") +
                lookups + map + "rc 411\n");
  setup = healthy;
  setup.init_status = MMAP_ERR_MMAP;
  const std::string failed_init =
      report("cb->m_init( cb->m_parm)", "602 (MMAP_ERR_MMAP)") + report("hw_acc_init( dev)", "602 (MMAP_ERR_MMAP)");
  EXPECT_EQ(start(setup, nvram_sw_init), failed_init + lookups + map + "init\nrc 602\n");
  EXPECT_EQ(run_child([&] {
              fake_acc = setup;
              (void)nvram_libinit();
            }).out,
            failed_init + report("nvram_sw_init()", "602 (MMAP_ERR_MMAP)"));
  const auto fails_with = [](const fake_acc_t &with, uint32_t (*op)()) {
    return [&with, op] {
      fake_acc = with;
      (void)op();
    };
  };
  expect_assertion(fails_with(setup, nvram_libinit), "nvram/nvram_acc_velto.cpp", "nvram_libinit", "rc == HW_SUCCESS");
  setup = healthy;
  setup.without_read = true;
  expect_assertion(fails_with(setup, nvram_sw_init), "hw_acc/hw_acc_p.h", "hw_acc_init", "cb->m_rd");
  setup.without_read = false;
  setup.without_write = true;
  expect_assertion(fails_with(setup, nvram_sw_init), "hw_acc/hw_acc_p.h", "hw_acc_init", "cb->m_wr");

  setup = healthy;
  setup.without_locks = true;
  setup.without_init = true;
  EXPECT_EQ(start(setup, [] { return nvram_sw_init() + nvram_wr(0, 2, 3) + nvram_sw_finish(); }),
            lookups + map + "w0 2=3\nrc 0\n");
}

TEST(nvram_start, comes_before_any_use) {
  uint16_t value = 0;
  expect_assertion([&] { (void)nvram_rd(0, 0, &value); }, "hw_acc/hw_acc_p.h", "hw_acc_rd_lk_acq", "_hw_acc_init");
  expect_assertion([] { (void)nvram_wr(0, 0, 0); }, "hw_acc/hw_acc_p.h", "hw_acc_wr_lk_acq", "_hw_acc_init");
  expect_assertion([] { (void)nvram_sw_finish(); }, "hw_acc/hw_acc_p.h", "hw_acc_fini", "_hw_acc_init");
}

class nvram : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    fake_acc = {};
    fake_acc.bars = {{0x18, {0, 0, 16}}, {0x1C, {0, 0, 16}}, {0x20, {0, 0, 16}}};
    EXPECT_EQ(nvram_sw_init(), HW_SUCCESS);
  }
  nvram() {
    fake_acc = {};
    card_index = PFM_CARD_11062;
  }

  static uint32_t run(std::string *output) {
    uint32_t status = 0;
    uint32_t result = 99;
    *output = stdout_of([&] { status = dorvan_nvram_test(0, &result, 0, nullptr); });
    EXPECT_EQ(result, status == 0 ? POST_RESULT_PASS : POST_RESULT_FAIL);
    return status;
  }
};

TEST_F(nvram, takes_the_lock_for_one_cycle) {
  nvram_model model({16, 16, 16}, {});
  uint16_t value = 0;
  EXPECT_EQ(nvram_wr(1, 0xA, 0xBEEF), HW_SUCCESS);
  EXPECT_EQ(nvram_rd(1, 0xA, &value), HW_SUCCESS);
  EXPECT_EQ(value, 0xBEEF);
  EXPECT_EQ(log_text(), "+w1\nw1 a=beef\n-w1\n+r1\nr1 a=beef\n-r1\n");
}

TEST_F(nvram, reports_failing_accesses_twice_through_both_hooks_under_the_lock) {
  nvram_model model({16, 16, 16}, {});
  fake_acc.access_status = HW_ERR_READ_PARITY_ERROR;
  const std::string rc = "\n           with rc 416 (HW_ERR_READ_PARITY_ERROR)\n";
  const auto expected = [&](const std::string &outer_name, const std::string &inner_name, const std::string &outer,
                            const std::string &inner) {
    const std::string head = "## Error : Failed ";
    return std::vector<hook_line>{
        {DIAG_LVL_DEBUG, outer_name + "(): " + outer + "\n"},
        {DIAG_LVL_DEBUG, inner_name + "(): " + inner + "\n"},
        {0, head + inner + rc},
        {DIAG_LVL_ERR, head + inner + rc},
        {0, head + outer + rc},
        {DIAG_LVL_ERR, head + outer + rc},
    };
  };
  uint16_t value = 0;
  EXPECT_EQ(hooks_of([&] { EXPECT_EQ(nvram_rd(2, 4, &value), HW_ERR_READ_PARITY_ERROR); }, true),
            expected("nvram_rd", "_nvram_rd", "_nvram_rd(Inst, offset, &tmp)", "hw_acc_rd( dev, Inst, offset, val)"));
  EXPECT_EQ(value, model.words_[2][2]);
  EXPECT_EQ(hooks_of([&] { EXPECT_EQ(nvram_wr(2, 4, value), HW_ERR_READ_PARITY_ERROR); }, true),
            expected("nvram_wr", "_nvram_wr", "_nvram_wr(Inst, offset, val)", "hw_acc_wr( dev, Inst, offset, val)"));
  EXPECT_EQ(fake_acc.log.back(), "-w2");
  // Only the data decide.
  std::string output;
  EXPECT_EQ(run(&output), 0U);
}

std::string cycle(char kind, uint32_t offset, uint32_t data) {
  char text[32];
  (void)snprintf(text, sizeof text, "%c0 %x=%x", kind, offset, data);
  return text;
}

TEST_F(nvram, makes_these_bus_cycles_on_16_bytes) {
  card_index = PFM_CARD_11096;
  nvram_model model({16, 16, 16}, {});
  const std::vector<uint16_t> saved = model.words_[0];
  EXPECT_EQ(mem_test_nvram(), 0U);

  std::vector<std::string> expected = {"pci 0x18"};
  const auto add = [&](char kind, uint32_t offset, uint32_t data) { expected.push_back(cycle(kind, offset, data)); };
  for (uint32_t i = 0; i < 8; ++i)
    add('r', 2 * i, saved[i]);
  add('r', 0, saved[0]);
  for (uint32_t bit = 1; bit <= 0x8000; bit *= 2) {
    add('w', 0, bit);
    add('r', 0, bit);
  }
  add('w', 0, saved[0]);
  // clang-format off
  const struct { char kind; uint32_t offset, data; } address_phase[] = {
      {'r', 0, saved[0]}, {'r', 2, saved[1]}, {'r', 4, saved[2]},
      {'w', 2, 0xAAAA}, {'w', 4, 0xAAAA}, {'w', 0, 0x5555},
      {'r', 2, 0xAAAA}, {'r', 4, 0xAAAA},
      {'w', 0, 0xAAAA},
      {'w', 2, 0x5555}, {'r', 0, 0xAAAA}, {'r', 2, 0x5555}, {'r', 4, 0xAAAA}, {'w', 2, 0xAAAA},
      {'w', 4, 0x5555}, {'r', 0, 0xAAAA}, {'r', 2, 0xAAAA}, {'r', 4, 0x5555}, {'w', 4, 0xAAAA},
      {'w', 0, saved[0]}, {'w', 2, saved[1]}, {'w', 4, saved[2]},
      // pattern phase
      {'w', 0, 1}, {'w', 2, 2}, {'w', 4, 3}, {'w', 6, 4},
      {'r', 0, 1}, {'w', 0, 0xFFFE}, {'r', 2, 2}, {'w', 2, 0xFFFD}, {'r', 4, 3}, {'w', 4, 0xFFFC}, {'r', 6, 4}, {'w', 6, 0xFFFB},
      {'r', 0, 0xFFFE}, {'r', 2, 0xFFFD}, {'r', 4, 0xFFFC}, {'r', 6, 0xFFFB},
  };
  // clang-format on
  for (const auto &c : address_phase)
    add(c.kind, c.offset, c.data);
  for (uint32_t i = 0; i < 8; ++i)
    add('w', 2 * i, saved[i]);
  EXPECT_EQ(cycles(), expected);
}

TEST_F(nvram, without_address_lines_writes_both_patterns_and_compares_nothing) {
  card_index = PFM_CARD_11061;
  nvram_model model({12, 16, 16}, {});
  const uint16_t saved = model.words_[0][0];
  EXPECT_EQ(mem_test_nvram(), 0U);
  const std::vector<std::string> all = cycles();
  // Behind the look-up, 6 reads to save, and the data phase of 34 cycles.
  const std::vector<std::string> address_phase(all.begin() + 41, all.begin() + 46);
  EXPECT_EQ(address_phase,
            (std::vector<std::string>{cycle('r', 0, saved), "w0 0=5555", "w0 0=aaaa", cycle('w', 0, saved), "w0 0=1"}));
}

TEST_F(nvram, keeps_the_contents_and_touches_nothing_outside_whatever_the_length) {
  // The model fails the test on an access outside its region.
  for (const uint32_t length :
       {0U, 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, 12U, 31U, 32U, 33U, 0x100U, 0x8000U, 0x20000U}) {
    SCOPED_TRACE(length);
    fake_acc = {};
    nvram_model model({length, 16, length}, {});
    const auto before = model.words_;
    std::string output;
    EXPECT_EQ(run(&output), 0U);
    EXPECT_EQ(output, "");
    EXPECT_EQ(model.words_, before);
    if (length >= 2) continue;
    for (const std::string &event : cycles())
      EXPECT_TRUE(event[0] == 'p' || event[1] == '1') << event;
  }
}

TEST_F(nvram, tests_the_instances_that_the_card_has) {
  for (const uint16_t card : std::initializer_list<uint16_t>{11061, 11062, 11079, 11096, 11099, 11111, 0xFFFF}) {
    SCOPED_TRACE(card);
    fake_acc = {};
    nvram_model model({16, 16, 16}, {});
    card_index = card;
    EXPECT_EQ(mem_test_nvram(), 0U);
    std::string lookups;
    for (const std::string &event : cycles())
      if (event[0] == 'p') lookups += event + " ";
    const bool one = card == 11061 || card == 11096;
    EXPECT_EQ(lookups, one ? "pci 0x18 " : "pci 0x18 pci 0x1c pci 0x20 ");
  }
}

TEST_F(nvram, finds_each_fault_and_writes_back) {
  struct {
    const char *name;
    fault_t fault;
    const char *output;
  } const cases[] = {
      {"data line stuck at 0",
       {.inst = 0, .data_low = 0x8},
       "0x00000000: Expected 0x8 Actual 0x0\n"
       "Failed above Data Bus Walking 1 Test for NVRAM 0 address 0x0\n"},
      {"data line stuck at 1",
       {.inst = 2, .data_high = 0x8000},
       "0x00000000: Expected 0x1 Actual 0x8001\n"
       "Failed above Data Bus Walking 1 Test for NVRAM 2 address 0x0\n"},
      {"address line stuck at 1",
       {.inst = 1, .address_high = 0x10},
       "0x00000010: Expected 0xaaaa Actual 0x5555\n"
       "Failed above Addr Bus Walking 1 Test for NVRAM 1, address 0x10\n"},
      {"address line stuck at 0",
       {.inst = 1, .address_low = 0x2000},
       "0x00002000: Expected 0xaaaa Actual 0x5555\n"
       "Failed above Addr Bus Walking 1 Test for NVRAM 1, address 0x2000\n"},
      {"address line follows another",
       {.inst = 0, .short_from = 2, .short_to = 0x400},
       "0x00000400: Expected 0xaaaa Actual 0x5555\n"
       "Writing 0x085555 at addr 0x082 -> 0x08400 addr alias failure for NVRAM 0\n"},
      {"word 0 follows another",
       {.inst = 2, .short_from = 0x40, .short_to = 0},
       "0x00000000: Expected 0xaaaa Actual 0x5555\n"
       "Writing 0x085555 at addr 0x0840 -> 0x080 addr alias failure for NVRAM 2\n"},
      {"cell without a 1",
       {.inst = 1, .cell = 0x3FFE, .cell_low = 0x2000},
       "0x00003ffe: Expected 0x2000 Actual 0x0\n"
       "Failed above increment data pattern test for NVRAM 1\n"},
      {"cell without a 0",
       {.inst = 0, .cell = 0x6, .cell_high = 0x4},
       "0x00000006: Expected 0xfffb Actual 0xffff\n"
       "Failed above inverted data pattern test for NVRAM 0\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    fake_acc = {};
    fake_acc.logging = false;
    nvram_model model({0x8000, 0x8000, 0x8000}, c.fault);
    const auto before = model.words_;
    std::string output;
    EXPECT_EQ(run(&output), 0xFFFFFFFF);
    EXPECT_EQ(output, c.output);
    for (uint32_t inst = 0; inst < 3; ++inst) {
      if (inst == c.fault.inst) continue;
      EXPECT_EQ(model.words_[inst], before[inst]) << inst;
    }
    // All of the broken instance is written back, in order; what it makes of that is its own.
    fake_acc.logging = true;
    fake_acc.log.clear();
    (void)stdout_of([] { (void)mem_test_nvram(); });
    const std::vector<std::string> all = cycles();
    size_t writes = 0;
    for (size_t at = all.size(); at-- > 0 && writes < 0x4000;) {
      if (all[at][1] != static_cast<char>('0' + c.fault.inst)) continue;
      ASSERT_EQ(all[at][0], 'w');
      ASSERT_EQ(std::stoul(all[at].substr(3), nullptr, 16), 0x7FFE - 2 * writes);
      ++writes;
    }
    EXPECT_EQ(writes, 0x4000U);
  }
}

TEST_F(nvram, does_not_see_the_upper_half_of_the_cells) {
  nvram_model model({0x8000, 0x8000, 0x8000}, {.inst = 0, .cell = 0x4000, .cell_low = 0xFFFF});
  std::string output;
  EXPECT_EQ(run(&output), 0U);
}

TEST_F(nvram, goes_on_behind_an_instance_that_is_not_found) {
  nvram_model model({16, 16, 16}, {});
  fake_acc.bars[0x1C].status = PCI_ERR_64_BIT_MEMORY_SPACE;
  std::string output;
  EXPECT_EQ(run(&output), 0xFFFFFFFF);
  EXPECT_EQ(output, "Failed to find the region of NVRAM 1: rc 3903 (PCI_ERR_64_BIT_MEMORY_SPACE)\n");
  EXPECT_EQ(log_text().find("w1"), std::string::npos);
  EXPECT_NE(log_text().find("w2 0=8000"), std::string::npos);
}

TEST_F(nvram, touches_nothing_without_the_card_index) {
  nvram_model model({16, 16, 16}, {});
  card_index = no_card;
  std::string output;
  EXPECT_EQ(run(&output), 1U);
  EXPECT_EQ(log_text(), "");
}

TEST_F(nvram, stops_at_once_without_memory) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "allocation failures end the process under the sanitizer";
#endif
  const outcome child = run_child([] {
    nvram_model model({16, 16, 16}, {.inst = 0, .data_low = 1});
    fake_acc.bars[0x1C].len = 0x60000000;
    const rlimit limit = {0x40000000, 0x40000000};
    (void)setrlimit(RLIMIT_AS, &limit);
    uint32_t result = 0;
    const uint32_t status = dorvan_nvram_test(0, &result, 0, nullptr);
    (void)printf("%u %u %s\n", status, result, fake_acc.log.back().c_str());
  });
  EXPECT_EQ(child.out,
            "0x00000000: Expected 0x1 Actual 0x0\n"
            "Failed above Data Bus Walking 1 Test for NVRAM 0 address 0x0\n"
            "6 2 pci 0x1c\n");
}

}  // namespace

uint32_t pfm_get_card_index(uint16_t *index) {
  EXPECT_EQ(*index, PFM_CARD_UNKNOWN);
  if (!card_index) return 1;
  *index = *card_index;
  return 0;
}

// Devices mapped through /dev/mem, and the template by which drivers use them, on the board's NVRAM.
#include <x86intrin.h>

#include "platform/mfgd/cmn_lib/diag_util/lock.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_acc_p.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"
#include "sim/bus/trap.h"
#include "tests/support/board.h"
#include "tests/support/opened.h"

namespace {

constexpr uint32_t phys[] = {0xF4000000, 0xF4010000, 0xF4020000};
constexpr uint32_t len = 0x1000;
constexpr char source[] = "mmap/mmap_acc.cpp";

class mmap_acc : public testing::Test {
 protected:
  mmap_acc() {
    memset(m_storage, 0x5A, sizeof m_storage);
    memset(static_cast<void *>(&m_cb), 0x5A, sizeof m_cb);
  }
  ~mmap_acc() override {
    (void)close(devmemfd);
    devmemfd = -1;
  }
  void map(uint32_t width) {
    EXPECT_EQ(mmap_acc_init(m_info, "RTC_NVRAM", 3, phys, len, width, &m_cb), HW_SUCCESS);
    EXPECT_EQ(m_cb.m_init(m_cb.m_parm), HW_SUCCESS);
  }
  // Whether the instance is mapped.
  [[nodiscard]] bool is_mapped(uint32_t inst) const {
    return msync(m_info->m_inst_info[inst].m_virt_addr, len, MS_ASYNC) == 0;
  }

  test_board m_board;
  alignas(mmap_info_t) unsigned char m_storage[128];
  mmap_info_t *const m_info = reinterpret_cast<mmap_info_t *>(m_storage);
  hw_acc_cb_t m_cb;
};

TEST_F(mmap_acc, describes_a_device_and_leaves_what_belongs_to_the_mapping) {
  EXPECT_EQ(mmap_acc_init(m_info, (std::string(31, 'n') + "tail").c_str(), 3, phys, len, 2, &m_cb), HW_SUCCESS);
  EXPECT_EQ(m_cb.m_name, std::string(31, 'n'));
  EXPECT_TRUE(m_info->m_hw_name == m_cb.m_name && m_info->m_width == 2);
  EXPECT_EQ(memcmp(&m_info->m_inst_info[2].m_virt_addr, &m_storage[128 - 16], 8 + sizeof(void *)), 0);
  EXPECT_EQ(mmap_acc_sizeof(3), sizeof(void *) == 4 ? 76U : 96U);
  EXPECT_EQ(mmap_acc_init(m_info, "n", 1, phys, len, 1, &m_cb), HW_SUCCESS);
  EXPECT_EQ(std::string(m_cb.m_name, sizeof m_cb.m_name), "n" + std::string(31, '\0')) << "the rest is cleared";
}

TEST_F(mmap_acc, asserts_arguments_in_order) {
  constexpr char widths[] = "(width == 1) || (width == 2) || (width == 4) || (width == 8)";
  int right = 0;  // so many arguments
  for (const char *const text : {"info", "hw_name", "num_inst", "base_addr", "len", widths, "cb"}) {
    const auto given = [right](int number, auto value) { return right > number ? value : decltype(value){}; };
    const auto call = [&] {
      (void)mmap_acc_init(given(0, m_info), given(1, "n"), given(2, 1U), given(3, &phys[0]), given(4, len),
                          given(5, 8U), nullptr);
    };
    expect_assertion(call, source, "mmap_acc_init", text);
    ++right;
  }
  expect_assertion([] { (void)mmap_map_addr(0x800, len, nullptr); }, source, "mmap_map_addr", "pLogAddr");
}

// The accesses to `cells` and the fences that were executed, in order. Every instruction of the processor is looked at.
std::string steps;
uint32_t cells[2];

void look_at(int /*number*/, siginfo_t * /*info*/, void *context) {
  sim::cpu_regs regs;
  sim::insn i;
  const bool moves = sim::decode_interrupted(*static_cast<const ucontext_t *>(context), &regs, &i) && !i.io;
  const uint64_t offset = i.address - reinterpret_cast<uintptr_t>(cells);
  if (moves && offset < sizeof cells)
    steps += (i.store ? "w" : "r") + std::to_string(i.width) + "+" + std::to_string(offset) + " ";
  const auto *const code = reinterpret_cast<const uint8_t *>(regs.ip);
  if (memcmp(code, "\x0F\xAE\xE8", 3) == 0) steps += "lfence ";
  if (memcmp(code, "\x0F\xAE\xF8", 3) == 0) steps += "sfence ";
}

std::string steps_of(const std::function<void()> &body) {
  constexpr unsigned trap_flag = 1 << 8;
  struct sigaction action {
  }, before{};
  action.sa_sigaction = look_at;
  action.sa_flags = SA_SIGINFO;
  (void)sigaction(SIGTRAP, &action, &before);
  steps.clear();
  __writeeflags(__readeflags() | trap_flag);
  body();
  __writeeflags(__readeflags() & ~trap_flag);
  (void)sigaction(SIGTRAP, &before, nullptr);
  return steps;
}

TEST_F(mmap_acc, fences_each_access_after_it) {
  // The words after a write, and the steps.
  // clang-format off
  const struct { uint32_t width, low, high; std::string reads, writes; } cases[] = {
      {1, 0xFFFFFFEF, 0xFFFFFFFF, "r8+0 lfence ",        "w8+0 sfence "},
      {2, 0xFFFFCDEF, 0xFFFFFFFF, "r16+0 lfence ",       "w16+0 sfence "},
      {4, 0x89ABCDEF, 0xFFFFFFFF, "r32+0 lfence ",       "w32+0 sfence "},
      {8, 0x89ABCDEF, 0,          "r32+0 r32+4 lfence ", "w32+0 w32+4 sfence "},
  };
  // clang-format on
  for (const auto &[width, low, high, reads, writes] : cases) {
    EXPECT_EQ(mmap_acc_init(m_info, "n", 2, phys, len, width, &m_cb), HW_SUCCESS);
    m_info->m_inst_info[1].m_virt_addr = reinterpret_cast<unsigned char *>(cells) - 0xFF0;
    cells[0] = cells[1] = 0xFFFFFFFF;
    EXPECT_EQ(steps_of([&] { EXPECT_EQ(m_cb.m_wr(1, 0xFF0, 0x89ABCDEF, m_info), HW_SUCCESS); }), writes);
    EXPECT_TRUE(cells[0] == low && cells[1] == high);
    uint32_t read = 0xFFFFFFFF;
    EXPECT_EQ(steps_of([&] { EXPECT_EQ(m_cb.m_rd(1, 0xFF0, &read, m_info), HW_SUCCESS); }), reads);
    EXPECT_EQ(read, 0x89ABCDEF & (UINT64_C(0xFFFFFFFF) >> (32 - 8 * std::min(width, 4U))));
  }
}

TEST_F(mmap_acc, maps_pages_and_opens_dev_mem_again_after_a_failure) {
  void *virt = nullptr;
  const auto map_at = [&](uint64_t at, uint64_t size) { return mmap_map_addr(at, size, &virt); };
  const size_t open = open_descriptors();
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(map_at(0x1F4000800, len), MMAP_ERR_DEV_MEM); }),
            "<3>mmap_map_addr():physAddr 1f4000800 not aligned at page boundary\n");
  EXPECT_TRUE(virt == nullptr && devmemfd == -1);
  m_board.start({"mem-absent"});
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(map_at(0xF4000000, len), MMAP_ERR_DEV_MEM); }),
            "<6>mmap_map_addr(): failed to open /dev/mem. Errno 2:No such file or directory");
  EXPECT_EQ(devmemfd, -1);
  m_board.start();
  EXPECT_EQ(steady(stdout_of([&] { EXPECT_EQ(map_at(0x10000, len), MMAP_ERR_MMAP) << "no device there"; })),
            "<6>devmemfd:0xN\n<3>mmap_map_addr(): mmap() failed. Errno 1:Operation not permitted");
  EXPECT_TRUE(virt == MAP_FAILED && devmemfd == -1);
  EXPECT_EQ(open_descriptors(), open) << "/dev/mem is closed";
  EXPECT_EQ(steady(stdout_of([&] { EXPECT_EQ(map_at(0x1F4000000, 0x700000000 + len), HW_SUCCESS); })),
            "<6>devmemfd:0xN\n<6>phys->virt: 0x1f4000000-->0xADDR\n")
      << "only the low halves count";
  EXPECT_EQ(opened_with()["/dev/mem"], O_RDWR | O_DSYNC);
  map(2);
  void *const third = m_info->m_inst_info[2].m_virt_addr;
  const auto lines = hooks_of([&] { EXPECT_EQ(mmap_get_virt_addr(2, &virt, m_info), HW_SUCCESS); }, true);
  EXPECT_EQ(virt, third);
  const auto trace = format("RTC_NVRAM_2: virt_addr=%lx\n", reinterpret_cast<unsigned long>(third));
  EXPECT_EQ(lines, (std::vector<hook_line>{{7, trace}}));
  expect_assertion([&] { (void)mmap_get_virt_addr(3, &virt, m_info); }, source, "mmap_get_virt_addr",
                   "inst < info->m_num_inst");
}

TEST_F(mmap_acc, keeps_what_was_mapped_before_a_failure) {
  const uint32_t second_missing[] = {phys[0], 0x10000, phys[2]};
  EXPECT_EQ(mmap_acc_init(m_info, "RTC_NVRAM", 3, second_missing, len, 2, &m_cb), HW_SUCCESS);
  EXPECT_EQ(m_cb.m_init(m_info), MMAP_ERR_MMAP);
  EXPECT_TRUE(is_mapped(0));
  EXPECT_EQ(memcmp(&m_info->m_inst_info[2].m_virt_addr, &m_storage[128 - 16], 8 + sizeof(void *)), 0);
}

TEST_F(mmap_acc, creates_each_lock_at_its_first_use_and_closes_it_at_the_end) {
  map(2);
  const size_t open = open_descriptors();
  mmap_inst_info_t *const inst = m_info->m_inst_info;
  for (const bool reads : {true, false}) {
    const int32_t &handle = reads ? inst[1].m_rd_lock : inst[1].m_wr_lock;
    const auto acquire = [&] { return (reads ? m_cb.m_rd_lk_acq : m_cb.m_wr_lk_acq)(1, m_info); };
    const auto release = [&] { return (reads ? m_cb.m_rd_lk_rel : m_cb.m_wr_lk_rel)(1, m_info); };
    const std::string rd = reads ? "rd" : "wr", op = "_mmap_" + rd + "_lk_";
    const std::string name = reads ? "RTC_NVRAM1-read" : "RTC_NVRAM1-write";
    const auto others = [&](auto ask) {
      return run_child([&] { _exit(ask(lock_create(name.c_str())) == 0 ? 0 : 1); }).status == 0;
    };
    expect_assertion([&] { (void)release(); }, source, op + "rel", "info->m_inst_info[inst].m_" + rd + "_lock");
    const auto without_directory = [&] {
      m_board.start({"lock-dir-missing"});
      (void)acquire();
    };
    EXPECT_THAT(expect_assertion(without_directory, source, op + "acq", "(0)").out,
                EndsWith("<3>lock_create(\"" + name + "\") failed\n"));
    EXPECT_EQ(acquire(), HW_SUCCESS);
    EXPECT_EQ(others(lock_get_rd_lock), reads);
    EXPECT_FALSE(others(lock_get_wr_lock));
    const auto released = hooks_of([&] { EXPECT_EQ(release(), HW_SUCCESS); }, true);
    EXPECT_THAT(released[0].text, StartsWith("dropping " + rd + "_lock: "));
    EXPECT_TRUE(others(lock_get_wr_lock));
    const int32_t used = handle;
    EXPECT_EQ(acquire(), HW_SUCCESS);
    EXPECT_EQ(handle, used);
  }
  EXPECT_EQ(m_cb.m_fini(m_info), HW_SUCCESS);
  EXPECT_FALSE(is_mapped(0) || is_mapped(1) || is_mapped(2));
  EXPECT_EQ(inst[1].m_rd_lock | inst[1].m_wr_lock, 0);
  EXPECT_EQ(open_descriptors(), open) << "the locks are closed";
  EXPECT_NE(fcntl(devmemfd, F_GETFD), -1);
}

TEST_F(mmap_acc, writes_instance_numbers_in_full) {
  std::vector<mmap_info_t> many(11);  // room enough
  const uint32_t bases[11] = {};
  EXPECT_EQ(mmap_acc_init(many.data(), "many", 11, bases, len, 2, &m_cb), HW_SUCCESS);
  EXPECT_EQ(m_cb.m_wr_lk_acq(10, many.data()) + m_cb.m_wr_lk_rel(10, many.data()), HW_SUCCESS);
  EXPECT_TRUE(std::filesystem::exists(m_board.file("var/lock/many10-write.lock")));
}

TEST_F(mmap_acc, unmaps_up_to_the_first_failure) {
  map(2);
  mmap_inst_info_t *const inst = m_info->m_inst_info;
  for (const uint32_t i : {0U, 1U, 2U})
    EXPECT_EQ(m_cb.m_wr_lk_acq(i, m_info), HW_SUCCESS);
  inst[1].m_virt_addr = reinterpret_cast<void *>(0x1234);
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(m_cb.m_fini(m_info), MMAP_ERR_MUNMAP); }),
            "<3>_mmap_fini(): munmap(addr=00001234, size=00001000) failed. Errno 22:Invalid argument");
  EXPECT_TRUE(!is_mapped(0) && is_mapped(2));
  EXPECT_TRUE(inst[0].m_wr_lock == 0 && inst[1].m_wr_lock != 0 && inst[2].m_wr_lock != 0);
}

// The steps by which drivers use a block.
TEST(driver_template, asks_for_a_started_driver_and_calls_the_slots_that_are_there) {
  hw_acc_cb_t cb = {};
  uint32_t data = 0;
  // clang-format off
  const std::pair<const char *, std::function<void()>> steps_of_drivers[] = {
      {"hw_acc_rd",        [&] { (void)hw_acc_rd(&cb, 0, 0, &data); }}, {"hw_acc_wr", [&] { (void)hw_acc_wr(&cb, 0, 0, data); }},
      {"hw_acc_rd_lk_acq", [&] { hw_acc_rd_lk_acq(&cb, 0); }},   {"hw_acc_rd_lk_rel", [&] { hw_acc_rd_lk_rel(&cb, 0); }},
      {"hw_acc_wr_lk_acq", [&] { hw_acc_wr_lk_acq(&cb, 0); }},   {"hw_acc_wr_lk_rel", [&] { hw_acc_wr_lk_rel(&cb, 0); }},
      {"hw_acc_fini",      [&] { hw_acc_fini(&cb); }},
  };
  // clang-format on
  constexpr char file[] = "hw_acc/hw_acc_p.h";
  for (const auto &[name, call] : steps_of_drivers)
    expect_assertion(call, file, name, "_hw_acc_init");
  const auto init = [&] { return hw_acc_init(&cb); };
  cb.m_init = [](void *) { return HW_ERR_INV_PARAM + 0; };
  EXPECT_EQ(init(), HW_ERR_INV_PARAM) << "before it looks for the other slots";
  cb.m_init = nullptr;
  expect_assertion(init, file, "hw_acc_init", "cb->m_rd");
  cb.m_rd = _mmap_rd8;
  expect_assertion(init, file, "hw_acc_init", "cb->m_wr");
  cb.m_wr = _mmap_wr8;
  _hw_acc_init = 1;
  const auto all_others = [&](uint32_t rc) {
    for (size_t i = 2; i < std::size(steps_of_drivers); ++i)
      steps_of_drivers[i].second();
    EXPECT_EQ(init(), rc);
  };
  EXPECT_THAT(hooks_of([&] { all_others(HW_SUCCESS); }), IsEmpty()) << "no slot to call";
  cb.m_parm = &cb;
  cb.m_init =
      cb.m_fini = [](void *parm) { return cli_printf("%s", parm != nullptr ? "called" : ""), HW_ERR_INV_PARAM + 0; };
  cb.m_rd_lk_acq = cb.m_rd_lk_rel = cb.m_wr_lk_acq = cb.m_wr_lk_rel = [](uint32_t inst, void *parm) {
    return cli_printf("lock %u%s", inst, parm != nullptr ? "" : " lost"), HW_ERR_INV_PARAM + 0;
  };
  const std::string text = "cb->m_init( cb->m_parm)\n",
                    report = "## Error : Failed " + text + "           with rc 411 (HW_ERR_INV_PARAM)\n";
  std::vector<hook_line> expected(4, {0, "lock 0"});
  expected.insert(expected.end(),
                  {{0, "called"}, {7, "hw_acc_init(): " + text}, {0, "called"}, {0, report}, {3, report}});
  EXPECT_EQ(hooks_of([&] { all_others(HW_ERR_INV_PARAM); }, true), expected);
}

}  // namespace

// Devices mapped through /dev/mem, on the board's NVRAM, with every access in the bus log. Devices that cannot be
// mapped and locks that cannot be created stand in the tests of whole runs.
#include <fcntl.h>
#include <sys/mman.h>

#include "platform/mfgd/cmn_lib/diag_util/lock.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"
#include "tests/support/board.h"
#include "tests/support/host.h"

namespace {

constexpr uint32_t phys[] = {0xF4000000, 0xF4010000, 0xF4020000};
constexpr uint32_t len = 0x1000;
constexpr char source[] = "mmap/mmap_acc.cpp";

class mmap_acc : public testing::Test {
 protected:
  mmap_acc() { memset(m_storage, 0x5A, sizeof m_storage); }
  ~mmap_acc() override { devmemfd = -1; }
  void map(uint32_t width) {
    EXPECT_EQ(mmap_acc_init(m_info, "RTC_NVRAM", 3, phys, len, width, &m_cb), HW_SUCCESS);
    EXPECT_EQ(m_cb.m_init(m_cb.m_parm), HW_SUCCESS);
  }

  test_board m_board{{"--trace"}};
  alignas(mmap_info_t) unsigned char m_storage[128];
  mmap_info_t *const m_info = reinterpret_cast<mmap_info_t *>(m_storage);
  hw_acc_cb_t m_cb;
};

TEST_F(mmap_acc, describes_a_device_and_leaves_what_belongs_to_the_mapping) {
  EXPECT_EQ(mmap_acc_init(m_info, (std::string(31, 'n') + "tail").c_str(), 3, phys, len, 2, &m_cb), HW_SUCCESS);
  EXPECT_EQ(m_cb.m_name, std::string(31, 'n'));
  EXPECT_EQ(m_info->m_hw_name, m_cb.m_name);
  EXPECT_EQ(memcmp(&m_info->m_inst_info[2].m_virt_addr, &m_storage[128 - 16], 8 + sizeof(void *)), 0);
  EXPECT_EQ(mmap_acc_sizeof(3), sizeof(void *) == 4 ? 76U : 96U);
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

TEST_F(mmap_acc, accesses_each_width_by_the_cycles_it_takes) {
  std::vector<uint32_t> read;
  for (const uint32_t width : {1U, 2U, 4U, 8U}) {
    map(width);
    EXPECT_EQ(m_cb.m_wr(1, 0xFF0, 0x89ABCDEF, m_cb.m_parm), HW_SUCCESS);
    EXPECT_EQ(m_cb.m_rd(1, 0xFF0, &read.emplace_back(0xFFFFFFFF), m_cb.m_parm), HW_SUCCESS);
    EXPECT_EQ(m_cb.m_fini(m_cb.m_parm), HW_SUCCESS);
  }
  EXPECT_EQ(read, (std::vector{0xEFU, 0xCDEFU, 0x89ABCDEFU, 0x89ABCDEFU}));
  // clang-format off
  EXPECT_EQ(m_board.log(), (std::vector<std::string>{
      "nvram1 w 8 0xff0 0xef",        "nvram1 r 8 0xff0 0xef",
      "nvram1 w 16 0xff0 0xcdef",     "nvram1 r 16 0xff0 0xcdef",
      "nvram1 w 32 0xff0 0x89abcdef", "nvram1 r 32 0xff0 0x89abcdef",
      "nvram1 w 32 0xff0 0x89abcdef", "nvram1 w 32 0xff4 0x0",
      "nvram1 r 32 0xff0 0x89abcdef", "nvram1 r 32 0xff4 0x0"}));
  // clang-format on
}

TEST_F(mmap_acc, maps_pages_and_opens_dev_mem_again_after_a_failure) {
  void *virt = nullptr;
  const auto map_at = [&](uint64_t at, uint64_t size) { return mmap_map_addr(at, size, &virt); };
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(map_at(0x1F4000800, len), MMAP_ERR_DEV_MEM); }),
            "mmap_map_addr():physAddr 1f4000800 not aligned at page boundary\n");
  EXPECT_EQ(virt, nullptr);
  EXPECT_EQ(map_at(0x10000, len), MMAP_ERR_MMAP) << "no device there";
  EXPECT_EQ(virt, MAP_FAILED);
  EXPECT_EQ(devmemfd, -1);
  EXPECT_EQ(map_at(0x1F4000000, 0x700000000 + len), HW_SUCCESS) << "only the low halves count";
  map(2);
  EXPECT_EQ(mmap_get_virt_addr(2, &virt, m_info), HW_SUCCESS);
  EXPECT_EQ(virt, m_info->m_inst_info[2].m_virt_addr);
  expect_assertion([&] { (void)mmap_get_virt_addr(3, &virt, m_info); }, source, "mmap_get_virt_addr",
                   "inst < info->m_num_inst");
}

TEST_F(mmap_acc, creates_each_lock_at_its_first_use_and_closes_it_at_the_end) {
  map(2);
  mmap_inst_info_t *const inst = m_info->m_inst_info;
  for (const bool reads : {true, false}) {
    const int32_t &handle = reads ? inst[1].m_rd_lock : inst[1].m_wr_lock;
    const auto acquire = [&] { return (reads ? m_cb.m_rd_lk_acq : m_cb.m_wr_lk_acq)(1, m_info); };
    const auto release = [&] { return (reads ? m_cb.m_rd_lk_rel : m_cb.m_wr_lk_rel)(1, m_info); };
    const auto others = [&](auto ask) {
      const int32_t file = lock_create(reads ? "RTC_NVRAM1-read" : "RTC_NVRAM1-write");
      return run_child([&] { _exit(ask(file) == 0 ? 0 : 1); }).status == 0;
    };
    expect_assertion([&] { (void)release(); }, source, reads ? "_mmap_rd_lk_rel" : "_mmap_wr_lk_rel",
                     std::string("info->m_inst_info[inst].m_") + (reads ? "rd_lock" : "wr_lock"));
    EXPECT_EQ(acquire(), HW_SUCCESS);
    EXPECT_EQ(others(lock_get_rd_lock), reads);
    EXPECT_FALSE(others(lock_get_wr_lock));
    EXPECT_EQ(release(), HW_SUCCESS);
    EXPECT_TRUE(others(lock_get_wr_lock));
    const int32_t used = handle;
    EXPECT_EQ(acquire(), HW_SUCCESS);
    EXPECT_EQ(handle, used);
  }
  // The third instance cannot be unmapped: those before it are gone with their locks.
  const int32_t lock = inst[1].m_rd_lock;
  inst[2].m_virt_addr = reinterpret_cast<void *>(0x1234);
  EXPECT_EQ(m_cb.m_rd_lk_acq(2, m_info), HW_SUCCESS);
  EXPECT_EQ(stdout_of([&] { EXPECT_EQ(m_cb.m_fini(m_info), MMAP_ERR_MUNMAP); }),
            "_mmap_fini(): munmap(addr=00001234, size=00001000) failed. Errno 22:Invalid argument");
  EXPECT_EQ(inst[1].m_rd_lock | inst[1].m_wr_lock, 0);
  EXPECT_EQ(fcntl(lock, F_GETFD), -1);
  EXPECT_NE(inst[2].m_rd_lock, 0);
}

}  // namespace

// Devices mapped through /dev/mem, with real mappings of memory that stands in for it and real locks.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "platform/mfgd/cmn_lib/diag_util/diag_dbg.h"
#include "platform/mfgd/cmn_lib/diag_util/lock.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"
#include "tests/unit/fake_os.h"
#include "tests/unit/host.h"

namespace {

constexpr uint32_t phys[] = {0xF4000000, 0x70010000, 0xFFFFF000};
constexpr uint32_t len = 0x1000;

class mmap_acc : public testing::Test {
 protected:
  mmap_acc() : name_("post-test-" + std::to_string(getpid())) { fake_os = {}; }
  ~mmap_acc() override {
    for (const char *const lock : {"0-read", "0-write", "1-read", "1-write", "10-read", "2-read", "2-write"})
      (void)unlink(lock_path(lock).c_str());
  }

  std::string lock_path(const char *lock) { return "/var/lock/" + name_ + lock + ".lock"; }

  void describe(uint32_t width, uint32_t instances = 3) {
    info_.reset(static_cast<mmap_info_t *>(calloc(1, mmap_acc_sizeof(instances))));
    memset(&cb_, 0xEE, sizeof cb_);
    std::vector<uint32_t> base(instances, phys[0]);
    for (uint32_t i = 0; i < instances && i < std::size(phys); ++i)
      base[i] = phys[i];
    EXPECT_EQ(mmap_acc_init(info_.get(), name_.c_str(), instances, base.data(), len, width, &cb_), HW_SUCCESS);
  }

  const std::string name_;
  std::unique_ptr<mmap_info_t, decltype(&free)> info_{nullptr, &free};
  hw_acc_cb_t cb_ = {};
};

std::string number(const char *fmt, unsigned long long value) {
  char text[64];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  (void)snprintf(text, sizeof text, fmt, value);
#pragma GCC diagnostic pop
  return text;
}

TEST_F(mmap_acc, sizes_the_record_by_instances) {
  EXPECT_EQ(mmap_acc_sizeof(0), offsetof(mmap_info_t, m_inst_info));
  EXPECT_EQ(mmap_acc_sizeof(3) - mmap_acc_sizeof(2), sizeof(mmap_inst_info_t));
  EXPECT_EQ(mmap_acc_sizeof(3), sizeof(void *) == 4 ? 76U : 96U);
}

TEST_F(mmap_acc, fills_the_block_by_width) {
  struct {
    uint32_t width;
    hw_acc_rd_t rd;
    hw_acc_wr_t wr;
  } const cases[] = {
      {1, _mmap_rd8, _mmap_wr8}, {2, _mmap_rd16, _mmap_wr16}, {4, _mmap_rd32, _mmap_wr32}, {8, _mmap_rd64, _mmap_wr64}};
  for (const auto &c : cases) {
    describe(c.width);
    EXPECT_EQ(cb_.m_rd, c.rd);
    EXPECT_EQ(cb_.m_wr, c.wr);
    EXPECT_EQ(cb_.m_init, _mmap_init);
    EXPECT_EQ(cb_.m_fini, _mmap_fini);
    EXPECT_EQ(cb_.m_rd_lk_acq, _mmap_rd_lk_acq);
    EXPECT_EQ(cb_.m_rd_lk_rel, _mmap_rd_lk_rel);
    EXPECT_EQ(cb_.m_wr_lk_acq, _mmap_wr_lk_acq);
    EXPECT_EQ(cb_.m_wr_lk_rel, _mmap_wr_lk_rel);
    EXPECT_EQ(cb_.m_parm, info_.get());
    EXPECT_EQ(cb_.m_name, name_);
    EXPECT_EQ(info_->m_hw_name, cb_.m_name);
    EXPECT_EQ(info_->m_inst_info[2].m_phys_addr, 0xFFFFF000U);
  }
}

TEST_F(mmap_acc, describing_leaves_what_belongs_to_the_mapping) {
  info_.reset(static_cast<mmap_info_t *>(malloc(mmap_acc_sizeof(1))));
  memset(static_cast<void *>(info_.get()), 0x5A, mmap_acc_sizeof(1));
  const std::string long_name = std::string(31, 'n') + "123456789";
  EXPECT_EQ(mmap_acc_init(info_.get(), long_name.c_str(), 1, phys, len, 2, &cb_), HW_SUCCESS);
  EXPECT_EQ(cb_.m_name, std::string(31, 'n'));
  EXPECT_EQ(info_->m_inst_info[0].m_rd_lock, 0x5A5A5A5A);
  EXPECT_EQ(info_->m_inst_info[0].m_wr_lock, 0x5A5A5A5A);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(info_->m_inst_info[0].m_virt_addr) & 0xFFFFFFFF, 0x5A5A5A5AU);
}

TEST_F(mmap_acc, asserts_arguments_in_order) {
  mmap_info_t info = {};
  const struct {
    const char *text;
    mmap_info_t *info;
    const char *name;
    uint32_t num;
    const uint32_t *base;
    uint32_t len;
    uint32_t width;
    hw_acc_cb_t *cb;
  } cases[] = {
      {"info", nullptr, nullptr, 0, nullptr, 0, 3, nullptr},
      {"hw_name", &info, nullptr, 0, nullptr, 0, 3, nullptr},
      {"num_inst", &info, "n", 0, nullptr, 0, 3, nullptr},
      {"base_addr", &info, "n", 1, nullptr, 0, 3, nullptr},
      {"len", &info, "n", 1, phys, 0, 3, nullptr},
      {"(width == 1) || (width == 2) || (width == 4) || (width == 8)", &info, "n", 1, phys, len, 3, nullptr},
      {"cb", &info, "n", 1, phys, len, 8, nullptr},
  };
  for (const auto &c : cases)
    expect_assertion([&] { (void)mmap_acc_init(c.info, c.name, c.num, c.base, c.len, c.width, c.cb); },
                     "mmap/mmap_acc.cpp", "mmap_acc_init", c.text);
  expect_assertion([] { (void)mmap_map_addr(0, len, nullptr); }, "mmap/mmap_acc.cpp", "mmap_map_addr", "pLogAddr");
}

TEST_F(mmap_acc, accesses_each_width_at_its_physical_place) {
  struct {
    uint32_t width;
    uint32_t wr_low, wr_high;  // memory after writing 0x89ABCDEF
    uint32_t rd;               // read of 0xF1E2D3C4
  } const cases[] = {
      {1, 0x777777EF, 0x77777777, 0xC4},
      {2, 0x7777CDEF, 0x77777777, 0xD3C4},
      {4, 0x89ABCDEF, 0x77777777, 0xF1E2D3C4},
      {8, 0x89ABCDEF, 0x00000000, 0xF1E2D3C4},
  };
  for (const auto &c : cases) {
    describe(c.width);
    EXPECT_EQ(cb_.m_init(cb_.m_parm), HW_SUCCESS);
    for (uint32_t inst = 0; inst < 3; ++inst) {
      const uint64_t at = phys[inst] + 0xFF0ULL;
      phys_write(at, 4, 0x77777777);
      phys_write(at + 4, 4, 0x77777777);
      EXPECT_EQ(cb_.m_wr(inst, 0xFF0, 0x89ABCDEF, cb_.m_parm), HW_SUCCESS);
      EXPECT_EQ(phys_read(at, 4), c.wr_low);
      EXPECT_EQ(phys_read(at + 4, 4), c.wr_high);
      phys_write(at, 4, 0xF1E2D3C4);
      uint32_t data = 0xFFFFFFFF;
      EXPECT_EQ(cb_.m_rd(inst, 0xFF0, &data, cb_.m_parm), HW_SUCCESS);
      EXPECT_EQ(data, c.rd);
    }
    EXPECT_EQ(cb_.m_fini(cb_.m_parm), HW_SUCCESS);
  }
}

TEST_F(mmap_acc, opens_dev_mem_once_and_tells_every_mapping) {
  // The descriptor may be open from a test before.
  if (devmemfd >= 0) (void)close(devmemfd);
  devmemfd = -1;
  describe(2);
  std::vector<hook_line> lines = hooks_of([&] { EXPECT_EQ(cb_.m_init(cb_.m_parm), HW_SUCCESS); });
  EXPECT_EQ(fake_os.devmem_flags, std::vector<int>{0x1002});
  std::vector<hook_line> expected;
  for (uint32_t i = 0; i < 3; ++i) {
    void *virt = nullptr;
    EXPECT_EQ(mmap_get_virt_addr(i, &virt, info_.get()), HW_SUCCESS);
    expected.push_back({DIAG_LVL_INFO, "devmemfd:" + number("0x%llx\n", static_cast<unsigned>(devmemfd))});
    expected.push_back({DIAG_LVL_INFO, "phys->virt: " + number("0x%llx", phys[i]) + "-->" +
                                           number("0x%llx\n", reinterpret_cast<uintptr_t>(virt))});
  }
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(cb_.m_fini(cb_.m_parm), HW_SUCCESS);
  EXPECT_GE(devmemfd, 0);
  const std::string trace =
      name_ + "_0: virt_addr=" + number("%llx\n", reinterpret_cast<uintptr_t>(info_->m_inst_info[0].m_virt_addr));
  void *virt = nullptr;
  lines = hooks_of([&] { (void)mmap_get_virt_addr(0, &virt, info_.get()); }, true);
  EXPECT_EQ(lines, (std::vector<hook_line>{{DIAG_LVL_DEBUG, trace}}));
  expect_assertion([&] { (void)mmap_get_virt_addr(3, &virt, info_.get()); }, "mmap/mmap_acc.cpp", "mmap_get_virt_addr",
                   "inst < info->m_num_inst");
}

constexpr char failed_map[] =
    "## Error : Failed mmap_map_addr( info->m_inst_info[i].m_phys_addr, info->m_len, "
    "&info->m_inst_info[i].m_virt_addr)\n";

TEST_F(mmap_acc, reports_each_failure_to_map) {
  describe(2, 1);
  const uint32_t crooked = 0xF4000800;
  struct {
    const char *name;
    void (*prepare)();
    uint32_t base;
    uint32_t rc;
    hook_line message;
  } const cases[] = {
      {"not aligned",
       [] {},
       crooked,
       MMAP_ERR_DEV_MEM,
       {DIAG_LVL_ERR, "mmap_map_addr():physAddr f4000800 not aligned at page boundary\n"}},
      {"no /dev/mem",
       [] { fake_os.devmem_absent = true; },
       phys[0],
       MMAP_ERR_DEV_MEM,
       {DIAG_LVL_INFO, "mmap_map_addr(): failed to open /dev/mem. Errno 2:No such file or directory"}},
      {"mmap refused",
       [] { fake_os.devmem_read_only = true; },
       phys[0],
       MMAP_ERR_MMAP,
       {DIAG_LVL_ERR, "mmap_map_addr(): mmap() failed. Errno 13:Permission denied"}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    if (devmemfd >= 0) (void)close(devmemfd);
    devmemfd = -1;
    fake_os = {};
    c.prepare();
    info_->m_inst_info[0].m_phys_addr = c.base;
    auto lines = hooks_of([&] { EXPECT_EQ(cb_.m_init(cb_.m_parm), c.rc); });
    std::erase_if(lines, [](const hook_line &line) { return line.text.rfind("devmemfd", 0) == 0; });
    const std::string report =
        failed_map + std::string("           with rc ") + std::to_string(c.rc) + " (" + hw_err_to_str(c.rc) + ")\n";
    EXPECT_EQ(lines, (std::vector<hook_line>{c.message, {0, report}, {DIAG_LVL_ERR, report}}));
    EXPECT_EQ(devmemfd, -1);
    EXPECT_EQ(info_->m_inst_info[0].m_virt_addr, c.rc == MMAP_ERR_MMAP ? MAP_FAILED : nullptr);
    EXPECT_EQ(fake_os.devmem_flags.size(), c.base == crooked ? 0U : 1U);
  }
}

TEST_F(mmap_acc, creates_each_lock_at_its_first_use_and_closes_it_at_the_end) {
  describe(2);
  (void)cb_.m_init(cb_.m_parm);
  EXPECT_EQ(info_->m_inst_info[1].m_rd_lock, 0);
  EXPECT_EQ(cb_.m_rd_lk_acq(1, cb_.m_parm), HW_SUCCESS);
  const int read_lock = info_->m_inst_info[1].m_rd_lock;
  EXPECT_GT(read_lock, 0);
  EXPECT_EQ(access(lock_path("1-read").c_str(), F_OK), 0);
  EXPECT_NE(access(lock_path("1-write").c_str(), F_OK), 0);
  EXPECT_EQ(cb_.m_rd_lk_rel(1, cb_.m_parm), HW_SUCCESS);
  EXPECT_EQ(cb_.m_rd_lk_acq(1, cb_.m_parm), HW_SUCCESS);
  EXPECT_EQ(info_->m_inst_info[1].m_rd_lock, read_lock);
  EXPECT_EQ(cb_.m_wr_lk_acq(1, cb_.m_parm), HW_SUCCESS);
  EXPECT_EQ(access(lock_path("1-write").c_str(), F_OK), 0);
  // Another process may read, but neither write nor take the write lock of the readers' file.
  const auto busy = [this](const char *lock, uint32_t (*take)(int32_t)) {
    const int exit_code =
        run_child([&] { _exit(take(lock_create((name_ + lock).c_str())) == LOCK_ERR_BUSY ? 1 : 0); }).exit_code;
    return exit_code == 1;
  };
  EXPECT_FALSE(busy("1-read", lock_get_rd_lock));
  EXPECT_TRUE(busy("1-read", lock_get_wr_lock));
  EXPECT_TRUE(busy("1-write", lock_get_rd_lock));
  EXPECT_EQ(cb_.m_wr_lk_rel(1, cb_.m_parm), HW_SUCCESS);
  EXPECT_FALSE(busy("1-write", lock_get_wr_lock));
  EXPECT_EQ(cb_.m_fini(cb_.m_parm), HW_SUCCESS);
  EXPECT_EQ(info_->m_inst_info[1].m_rd_lock, 0);
  EXPECT_EQ(fcntl(read_lock, F_GETFD), -1);
  EXPECT_EQ(access(lock_path("1-read").c_str(), F_OK), 0);
}

TEST_F(mmap_acc, writes_instance_numbers_in_full) {
  describe(2, 11);
  EXPECT_EQ(_mmap_rd_lk_acq(10, info_.get()), HW_SUCCESS);
  EXPECT_EQ(access(lock_path("10-read").c_str(), F_OK), 0);
  (void)lock_destroy(info_->m_inst_info[10].m_rd_lock);
}

TEST_F(mmap_acc, ends_the_process_on_misused_locks) {
  describe(2);
  const char *const file = "mmap/mmap_acc.cpp";
  expect_assertion([&] { (void)_mmap_rd_lk_rel(0, info_.get()); }, file, "_mmap_rd_lk_rel",
                   "info->m_inst_info[inst].m_rd_lock");
  expect_assertion([&] { (void)_mmap_wr_lk_rel(2, info_.get()); }, file, "_mmap_wr_lk_rel",
                   "info->m_inst_info[inst].m_wr_lock");
  (void)snprintf(cb_.m_name, sizeof cb_.m_name, "no-such-directory/x");
  for (const auto &[op, name, lock] : {std::tuple{&_mmap_rd_lk_acq, "_mmap_rd_lk_acq", "2-read"},
                                       std::tuple{&_mmap_wr_lk_acq, "_mmap_wr_lk_acq", "2-write"}}) {
    const auto call = [&, acquire = op] { (void)acquire(2, info_.get()); };
    expect_assertion(call, file, name, "(0)");
    const std::string message = "lock_create(\"no-such-directory/x" + std::string(lock) + "\") failed\n";
    const std::string out = run_child(call).out;
    ASSERT_GE(out.size(), message.size());
    EXPECT_EQ(out.substr(out.size() - message.size()), message);
  }
}

TEST_F(mmap_acc, stops_unmapping_at_the_first_failure) {
  describe(2);
  (void)cb_.m_init(cb_.m_parm);
  (void)cb_.m_rd_lk_acq(2, cb_.m_parm);
  void *const good = info_->m_inst_info[1].m_virt_addr;
  info_->m_inst_info[1].m_virt_addr = reinterpret_cast<void *>(0x1234);
  const auto lines = hooks_of([&] { EXPECT_EQ(cb_.m_fini(cb_.m_parm), MMAP_ERR_MUNMAP); });
  const std::string message =
      "_mmap_fini(): munmap(addr=00001234, size=00001000) failed. Errno 22:" + std::string(strerror(EINVAL));
  EXPECT_EQ(lines, (std::vector<hook_line>{{DIAG_LVL_ERR, message}}));
  EXPECT_NE(info_->m_inst_info[2].m_rd_lock, 0);
  uint32_t data = 0;
  EXPECT_EQ(cb_.m_rd(2, 0, &data, cb_.m_parm), HW_SUCCESS);
  info_->m_inst_info[1].m_virt_addr = good;
}

}  // namespace

// test_sim_devmem.cpp: mappings of the windows, the log of accesses, the I/O port, contents that outlive the run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/io.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "sim/flash.h"
#include "sim/port.h"
#include "tests/unit/sim_memory_board.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int read_write = PROT_READ | PROT_WRITE;

// The access rights of the page at `address`, as /proc/self/maps shows them: "rw", "r-", "--" or "" for no mapping.
std::string rights(const volatile void *address) {
  const auto wanted = reinterpret_cast<uintptr_t>(address);
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    uintptr_t first = 0;
    uintptr_t last = 0;
    char flags[5] = {};
    if (sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s", &first, &last, flags) != 3) continue;
    if (wanted >= first && wanted < last) return std::string(flags, 2);
  }
  return "";
}

struct map_case {
  const char *name;
  uint64_t phys;
  size_t length;
  int prot, flags;
  int error;  // 0 for success
};

TEST(sim_devmem, maps_what_lies_in_a_window_and_nothing_else) {
  // clang-format off
  const map_case cases[] = {
      {"nvram0",                0xF4000000, 0x8000,     read_write, MAP_SHARED, 0},
      {"a page of nvram1",      0xF4017000, 0x1000,     read_write, MAP_SHARED, 0},
      {"part of a page",        0xF4020000, 12,         read_write, MAP_SHARED, 0},
      {"the flash",             0xF8000000, 0x4000000,  read_write, MAP_SHARED, 0},
      {"its last sector",       0xFBFE0000, 0x20000,    PROT_READ,  MAP_SHARED, 0},
      {"beyond nvram2",         0xF4020000, 0x9000,     read_write, MAP_SHARED, EPERM},
      {"beyond the flash",      0xFC000000, 0x1000,     read_write, MAP_SHARED, EPERM},
      {"over its end",          0xFBFFF000, 0x2000,     read_write, MAP_SHARED, EPERM},
      {"between windows",       0xF4008000, 0x1000,     read_write, MAP_SHARED, EPERM},
      {"main memory",           0x00000000, 0x1000,     read_write, MAP_SHARED, EPERM},
      {"above 4 GiB",           0x1F4000000, 0x1000,    read_write, MAP_SHARED, EPERM},
      {"not at a page",         0xF4000800, 0x1000,     read_write, MAP_SHARED, EINVAL},
      {"nothing",               0xF4000000, 0,          read_write, MAP_SHARED, EINVAL},
      {"neither shared nor private", 0xF4000000, 0x1000, read_write, 0, EINVAL},
      {"far too much",          0xF4000000, SIZE_MAX,   read_write, MAP_SHARED, ENOMEM},
  };
  // clang-format on
  memory_board board;
  ASSERT_NO_FATAL_FAILURE(board.start());
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    errno = 0;
    void *const address = sim::devmem_map(c.length, c.prot, c.flags, c.phys);
    EXPECT_EQ(errno, c.error);
    EXPECT_EQ(address == MAP_FAILED, c.error != 0);
    EXPECT_EQ(sim::devmem_unmap(address, c.length), c.error == 0);
  }
}

TEST(sim_devmem, refuses_mappings_on_request) {
  memory_board board({"mem-mmap-refused nth=2 times=2 errno=12"});
  ASSERT_NO_FATAL_FAILURE(board.start());
  for (const int error : {0, ENOMEM, ENOMEM, 0, 0}) {
    errno = 0;
    const void *const address = sim::devmem_map(0x8000, read_write, MAP_SHARED, 0xF4000000);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(address == MAP_FAILED, error != 0);
  }
}

TEST(sim_devmem, takes_mappings_away_whole_or_in_part) {
  memory_board board;
  ASSERT_NO_FATAL_FAILURE(board.start());
  auto *const bytes = board.map<uint8_t>(nvram0);
  auto *const start = const_cast<uint8_t *>(bytes);
  const auto contents = board.contents(nvram0);
  EXPECT_FALSE(sim::devmem_unmap(start - 0x1000, 0x1000));
  EXPECT_FALSE(sim::devmem_unmap(start, 0x9000));
  EXPECT_FALSE(sim::devmem_unmap(start + 8, 0x1000));
  EXPECT_TRUE(sim::devmem_unmap(start + 0x2000, 0x1000));
  EXPECT_EQ(rights(start + 0x2000), "");
  EXPECT_FALSE(sim::devmem_unmap(start, 0x8000));
  EXPECT_EQ(bytes[0x1FFF], contents[0x1FFF]);
  EXPECT_EQ(bytes[0x3000], contents[0x3000]);
  EXPECT_TRUE(sim::devmem_unmap(start, 0x2000));
  EXPECT_TRUE(sim::devmem_unmap(start + 0x3000, 0x5000));
  EXPECT_EQ(rights(start), "");
  EXPECT_EQ(rights(start + 0x3000), "");
}

TEST(sim_devmem, knows_offsets_within_a_window) {
  memory_board board{"nvram-cell-stuck instance=1 offset=0x7000 bit=0 level=1"};
  ASSERT_NO_FATAL_FAILURE(board.start());
  void *const address = sim::devmem_map(0x2000, read_write, MAP_SHARED, 0xF4016000);
  ASSERT_NE(address, MAP_FAILED);
  auto *const words = static_cast<volatile uint16_t *>(address);
  words[0x0FFE / 2] = 0x1234;
  words[0x1000 / 2] = 0x5678;
  EXPECT_EQ(words[0x1000 / 2], 0x5679);
  EXPECT_EQ(board.contents(nvram1)[0x6FFE], 0x34);
  EXPECT_EQ(board.contents(nvram1)[0x7000], 0x79);
}

TEST(sim_devmem, shows_one_device_through_several_mappings) {
  memory_board board;
  ASSERT_NO_FATAL_FAILURE(board.start());
  auto *const one = board.map<uint16_t>(flash);
  const auto *const other = board.map<uint16_t>(flash);
  one[0xAA / 2] = 0x98;
  EXPECT_EQ(rights(one), "--");
  EXPECT_EQ(rights(other), "--");
  EXPECT_EQ(other[0x20 / 2], 'Q');
  one[0xAAA / 2] = 0xF0;
  for (unsigned i = 0; i < 8; i++)
    EXPECT_NE(other[0x20 / 2], 'Q');
  EXPECT_EQ(rights(one), "r-");
  EXPECT_EQ(rights(other), "r-");
}

TEST(sim_devmem, lets_healthy_reads_run_at_memory_speed) {
  memory_board healthy;
  ASSERT_NO_FATAL_FAILURE(healthy.start());
  EXPECT_EQ(rights(healthy.map<uint16_t>(nvram0)), "rw");
  EXPECT_EQ(rights(healthy.map<uint16_t>(flash)), "r-");

  memory_board faulty{"nvram-data-stuck instance=1 line=0 level=0", "flash-cell-stuck offset=0 bit=0 level=1"};
  ASSERT_NO_FATAL_FAILURE(faulty.start());
  EXPECT_EQ(rights(faulty.map<uint16_t>(nvram0)), "rw");
  EXPECT_EQ(rights(faulty.map<uint16_t>(nvram1)), "--");
  const auto *const words = faulty.map<uint16_t>(flash);
  for (unsigned i = 0; i < 100; i++)
    (void)words[i];
  EXPECT_EQ(rights(words), "--");

  memory_board traced({}, true);
  ASSERT_NO_FATAL_FAILURE(traced.start());
  EXPECT_EQ(rights(traced.map<uint16_t>(nvram0)), "--");
  EXPECT_EQ(rights(traced.map<uint16_t>(flash)), "--");
}

TEST(sim_devmem, logs_every_cycle_in_order) {
  memory_board board({}, true);
  ASSERT_NO_FATAL_FAILURE(board.start());
  auto *const nvram = board.map<uint16_t>(nvram2);
  auto *const words = board.map<uint16_t>(flash);
  nvram[1] = 0xBEEF;
  EXPECT_EQ(nvram[1], 0xBEEF);
  words[0xAAA / 2] = 0xAA;
  words[0x554 / 2] = 0x55;
  words[0xAAA / 2] = 0x90;
  EXPECT_EQ(words[1], 0x227E);
  words[0xAAA / 2] = 0xF0;
  const auto *const longs = reinterpret_cast<volatile uint32_t *>(words + 0x10000);
  EXPECT_EQ(*longs | 0xFFFFFFFFU, 0xFFFFFFFFU);
  auto lines = board.log();
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines.back().substr(0, 20), "flash r 32 0x20000 0");
  lines.pop_back();
  EXPECT_THAT(lines, ElementsAre("nvram2 w 16 0x2 0xbeef", "nvram2 r 16 0x2 0xbeef", "flash w 16 0xaaa 0xaa",
                                 "flash w 16 0x554 0x55", "flash w 16 0xaaa 0x90", "flash r 16 0x2 0x227e",
                                 "flash w 16 0xaaa 0xf0"));
}

TEST(sim_devmem, keeps_contents_for_the_next_run) {
  memory_board board;
  ASSERT_NO_FATAL_FAILURE(board.start());
  board.map<uint16_t>(nvram0)[0] = 0xCAFE;
  auto *const words = board.map<uint16_t>(flash);
  for (const auto &[offset, data] : {std::pair{0xAAA, 0xAA}, {0x554, 0x55}, {0xAAA, 0xA0}, {0x10000, 0x1234}})
    words[offset / 2] = static_cast<uint16_t>(data);
  ASSERT_NO_FATAL_FAILURE(board.start());
  EXPECT_EQ(rights(words), "");
  EXPECT_EQ(board.map<uint16_t>(nvram0)[0], 0xCAFE);
  EXPECT_EQ(board.map<uint16_t>(flash)[0x10000 / 2], 0x1234);
}

TEST(sim_devmem, fills_new_flash_with_different_sectors) {
  memory_board board;
  ASSERT_NO_FATAL_FAILURE(board.start());
  const auto bytes = board.contents(flash);
  for (uint32_t s = 1; s < sim::flash_sectors; s++)
    ASSERT_NE(memcmp(&bytes[0], &bytes[s * sim::flash_sector_bytes], 0x1000), 0);
  EXPECT_EQ(bytes[0x1000], 0xFF);
  EXPECT_EQ(bytes[0x1FFFF], 0xFF);
}

TEST(sim_devmem, says_why_a_state_directory_cannot_be_used) {
  memory_board absent;
  absent.opts.state += "/none";
  testing::internal::CaptureStderr();
  EXPECT_FALSE(sim::devmem_start(absent.opts));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::MatchesRegex("board-sim: .*/none/nvram0.new: No such file or directory\n"));
  absent.opts.state.resize(absent.opts.state.size() - 5);

  memory_board cut;
  ASSERT_NO_FATAL_FAILURE(cut.start());
  sim::devmem_stop();
  std::filesystem::resize_file(cut.opts.state + "/flash", 100);
  testing::internal::CaptureStderr();
  EXPECT_FALSE(sim::devmem_start(cut.opts));
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::MatchesRegex("board-sim: .*/flash: size is not 67108864 bytes\n"));
}

// One sector test as POST makes it: erase, a page, erase, two pages again.
void work_on_sector(volatile uint16_t *words, uint32_t number) {
  const uint32_t sector = number * sim::flash_sector_bytes;
  const auto write = [&](uint32_t offset, unsigned data) { words[offset / 2] = static_cast<uint16_t>(data); };
  const auto unlock = [&] {
    write(0xAAA, 0xAA);
    write(0x554, 0x55);
  };
  const auto wait = [&](uint32_t offset) {
    while (((words[offset / 2] ^ words[offset / 2]) & 0x40) != 0) {
    }
  };
  const auto erase = [&] {
    unlock();
    write(0xAAA, 0x80);
    unlock();
    write(sector, 0x30);
    wait(sector);
  };
  const auto program = [&](uint32_t page) {
    unlock();
    write(sector, 0x25);
    write(sector, 15);
    for (uint32_t w = 0; w < 16; w++)
      write(sector + page * 32 + w * 2, 0x1000 * page + w);
    write(sector, 0x29);
    wait(sector + page * 32 + 30);
  };
  erase();
  program(0);
  erase();
  program(0);
  program(1);
}

TEST(sim_devmem, loses_nothing_outside_the_sector_when_the_run_is_killed) {
  constexpr uint32_t number = 5;
  constexpr unsigned all_writes = 2 * 6 + 3 * 21;
  for (unsigned nth = 1; nth <= all_writes + 1; nth++) {
    SCOPED_TRACE(nth);
    memory_board board;
    std::string error;
    board.opts.faults.push_back(*sim::fault_parse("flash-power-cut nth=" + std::to_string(nth), &error));
    ASSERT_NO_FATAL_FAILURE(board.start());
    const auto before = board.snapshot(flash);
    const pid_t child = fork();
    if (child == 0) {
      work_on_sector(board.map<uint16_t>(flash), number);
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(WIFSIGNALED(status), nth <= all_writes);
    const auto after = board.contents(flash);
    const size_t start = number * sim::flash_sector_bytes;
    const size_t end = start + sim::flash_sector_bytes;
    ASSERT_EQ(memcmp(before.data(), after.data(), start), 0);
    ASSERT_EQ(memcmp(&before[end], &after[end], sim::flash_bytes - end), 0);
    if (nth == all_writes + 1) {
      for (size_t at = start; at < end; at++)
        ASSERT_EQ(after[at], at - start >= 64 ? 0xFF : at % 2 == 0 ? at / 2 % 16 : (at - start) / 32 * 0x10);
    }
    if (nth > 12 && nth < all_writes) nth += 6;
  }
}

// --- I/O port -------------------------------------------------------------------------------------------------------

TEST(sim_port, protects_by_bit_27) {
  memory_board board({}, true);
  ASSERT_NO_FATAL_FAILURE(board.start());
  EXPECT_TRUE(sim::port_write_protected());
  ASSERT_EQ(sim::port_iopl(3), 0);
  (void)board.map<uint8_t>(nvram0);
  const uint32_t before = inl(0x50C);
  EXPECT_EQ(before, sim::port_initial);
  outl(before & ~0x08000000U, 0x50C);
  EXPECT_FALSE(sim::port_write_protected());
  outl(inl(0x50C) | 0x08000000U, 0x50C);
  EXPECT_TRUE(sim::port_write_protected());
  EXPECT_EQ(inl(0x50C), before);
  EXPECT_EQ(sim::port_iopl(0), 0);
  EXPECT_THAT(board.log(),
              ElementsAre("port r 32 0x50c 0x6b5a3c41", "port w 32 0x50c 0x635a3c41", "port r 32 0x50c 0x635a3c41",
                          "port w 32 0x50c 0x6b5a3c41", "port r 32 0x50c 0x6b5a3c41"));
}

TEST(sim_port, works_without_any_mapping) {
  memory_board board;
  ASSERT_NO_FATAL_FAILURE(board.start());
  ASSERT_EQ(sim::port_iopl(3), 0);
  EXPECT_EQ(inl(0x50C), sim::port_initial);
}

TEST(sim_port, takes_levels_0_to_3) {
  memory_board board;
  ASSERT_NO_FATAL_FAILURE(board.start());
  for (const int level : {0, 1, 2, 3, 0})
    EXPECT_EQ(sim::port_iopl(level), 0);
  for (const int level : {-1, 4}) {
    errno = 0;
    EXPECT_EQ(sim::port_iopl(level), -1);
    EXPECT_EQ(errno, EINVAL);
  }
}

TEST(sim_port, refuses_and_sticks_on_request) {
  memory_board refused{"iopl-refused errno=38"};
  ASSERT_NO_FATAL_FAILURE(refused.start());
  EXPECT_EQ(sim::port_iopl(3), -1);
  EXPECT_EQ(errno, 38);
  EXPECT_EQ(sim::port_iopl(0), 0);

  memory_board stuck{"port-stuck bit=27 level=1", "port-stuck bit=0 level=0"};
  ASSERT_NO_FATAL_FAILURE(stuck.start());
  ASSERT_EQ(sim::port_iopl(3), 0);
  EXPECT_EQ(inl(0x50C), sim::port_initial & ~1U);
  outl(1, 0x50C);
  EXPECT_EQ(inl(0x50C), 0x08000000U);
  EXPECT_TRUE(sim::port_write_protected());
}

TEST(sim_port_death, ends_the_run_without_privilege_and_elsewhere) {
  memory_board board;
  ASSERT_NO_FATAL_FAILURE(board.start());
  EXPECT_EXIT(
      {
        signal(SIGSEGV, SIG_DFL);
        (void)sim::port_iopl(3);
        (void)sim::port_iopl(2);
        (void)inl(0x50C);
      },
      testing::KilledBySignal(SIGSEGV), "I/O port 0x50c used without the I/O privilege");
  EXPECT_EXIT(
      {
        (void)sim::port_iopl(3);
        outb(1, 0x50C);
      },
      testing::KilledBySignal(SIGABRT), "8-bit access to I/O port 0x50c: no device answers");
  EXPECT_EXIT(
      {
        (void)sim::port_iopl(3);
        (void)inl(0x80);
      },
      testing::KilledBySignal(SIGABRT), "32-bit access to I/O port 0x80: no device answers");
}

}  // namespace

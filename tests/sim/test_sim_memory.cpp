// The memory side of the board: windows behind /dev/mem, contents that outlive the run, the I/O port.
#include <cinttypes>

#include "sim/devices/flash.h"
#include "tests/support/board.h"

namespace {

constexpr int read_write = PROT_READ | PROT_WRITE;

// Through a copy of a descriptor, as good as the first one.
void *map(uint64_t phys, size_t length, int prot = read_write, int flags = MAP_SHARED) {
  const unique_fd fd(dup(unique_fd(open("/dev/mem", O_RDWR | O_CLOEXEC)).get()));
  return mmap(nullptr, length, prot, flags, fd.get(), static_cast<off_t>(phys));
}

// The access rights of the page at `address`: "rw", "r-", "--" or "" for no mapping.
std::string rights(const volatile void *address) {
  const auto wanted = reinterpret_cast<uintptr_t>(address);
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    uintptr_t first = 0, last = 0;
    char flags[5] = {};
    if (sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s", &first, &last, flags) != 3) continue;
    if (wanted >= first && wanted < last) return std::string(flags, 2);
  }
  return "";
}

// --- Mappings -------------------------------------------------------------------------------------------------------

TEST(sim_devmem, maps_what_lies_in_a_window_and_nothing_else) {
  // clang-format off
  const struct { const char *name; uint64_t phys; size_t length; int flags, error; } cases[] = {
      {"nvram0",           0xF4000000,  0x8000,    MAP_SHARED, 0},
      {"part of a page",   0xF4020000,  12,        MAP_SHARED, 0},
      {"the flash",        0xF8000000,  0x4000000, MAP_SHARED, 0},
      {"beyond nvram2",    0xF4020000,  0x9000,    MAP_SHARED, EPERM},
      {"beyond the flash", 0xFC000000,  0x1000,    MAP_SHARED, EPERM},
      {"over its end",     0xFBFFF000,  0x2000,    MAP_SHARED, EPERM},
      {"above 4 GiB",      0x1F4000000, 0x1000,    MAP_SHARED, EPERM},
      {"not at a page",    0xF4000800,  0x1000,    MAP_SHARED, EINVAL},
      {"nothing",          0xF4000000,  0,         MAP_SHARED, EINVAL},
      {"private",          0xF4000000,  0x1000,    MAP_PRIVATE, EINVAL},
      {"far too much",     0xF4000000,  SIZE_MAX,  MAP_SHARED, ENOMEM},
  };
  // clang-format on
  const test_board board;
  for (const auto &[name, phys, length, flags, error] : cases) {
    SCOPED_TRACE(name);
    errno = 0;
    void *const address = map(phys, length, read_write, flags);
    EXPECT_EQ(errno, error);
    EXPECT_EQ(address == MAP_FAILED, error != 0);
    EXPECT_TRUE(error != 0 || munmap(address, length) == 0);
    EXPECT_EQ(rights(address), "");
  }
}

TEST(sim_devmem, knows_offsets_and_answers_where_parts_are_taken_away_moved_and_get_other_rights) {
  const test_board board({"nvram-cell-stuck instance=1 offset=0x7000 bit=0 level=1"});
  auto *const bytes = static_cast<uint8_t *>(map(0xF4014000, 0x4000));  // the upper half of nvram1
  EXPECT_EQ(munmap(bytes + 0x2000, 0x1000), 0);
  EXPECT_EQ(rights(bytes + 0x1FFF), "--");
  EXPECT_EQ(rights(bytes + 0x2000), "");
  EXPECT_EQ(mprotect(bytes + 0x1000, 0x1000, PROT_READ), 0);
  EXPECT_EQ(mprotect(bytes + 0x1000, 0x1000, read_write), 0);
  EXPECT_EQ(rights(bytes + 0x1000), "--");
  EXPECT_EQ(mremap(bytes, 0x2000, 0x3000, MREMAP_MAYMOVE), MAP_FAILED);
  auto *const words = static_cast<volatile uint16_t *>(
      mremap(bytes + 0x3000, 0x1000, 0x1000, MREMAP_MAYMOVE | MREMAP_FIXED, bytes + 0x2000));
  EXPECT_EQ(rights(bytes + 0x3000), "");
  words[0] = 0x5678;
  EXPECT_EQ(words[0], 0x5679);
  EXPECT_EQ(board.contents("nvram1").substr(0x7000, 2), "\x79\x56");
}

TEST(sim_devmem, lets_healthy_devices_run_at_memory_speed) {
  // Options, and the rights on the windows after reads.
  using rights_of_windows = std::array<const char *, 4>;
  const std::pair<std::vector<const char *>, rights_of_windows> cases[] = {
      {{}, {"rw", "rw", "rw", "r-"}},
      {{"nvram-data-stuck instance=1 line=0 level=0"}, {"rw", "--", "rw", "r-"}},
      {{"flash-cell-stuck offset=0 bit=0 level=1"}, {"rw", "rw", "rw", "--"}},
      {{"--trace"}, {"--", "--", "--", "--"}},
  };
  for (const auto &[options, expected] : cases) {
    const test_board board(options);
    for (const auto number : {nvram0, nvram1, nvram2, flash}) {
      const auto *const other = map_window<uint16_t>(number);
      const auto *const words = map_window<uint16_t>(number);
      for (unsigned i = 0; i < 8; ++i)
        (void)words[i];
      EXPECT_EQ(rights(words), expected[number]) << number;
      EXPECT_EQ(rights(other), expected[number]) << number;
    }
  }
}

TEST(sim_devmem, answers_no_memory_access_where_its_bar_does_not_map_memory) {
  for (const auto *const fault : {"bar-io bar=5", "bar-missing bar=5"}) {
    const test_board board({fault});
    auto *const words = map_window<uint16_t>(flash);
    for (const auto &[offset, data] : {std::pair{0xAAA, 0xAA}, {0x554, 0x55}, {0xAAA, 0xA0}, {0x1000, 0x1234}})
      words[offset / 2] = static_cast<uint16_t>(data);
    for (size_t i = 0; i < 8; ++i)
      EXPECT_EQ(words[i], 0xFFFF);
    EXPECT_EQ(map_window<uint16_t>(nvram0)[0] & 0xFF, static_cast<uint8_t>(board.contents("nvram0")[0]));
    board.start();
    EXPECT_EQ(map_window<uint16_t>(flash)[0x1000 / 2], 0xFFFF) << "nothing was programmed";
  }
}

TEST(sim_devmem, makes_the_flash_before_a_signals_handler_uses_it) {
  const test_board board;
  static volatile uint16_t *words;
  words = map_window<uint16_t>(flash);
  (void)signal(SIGALRM, [](int) { (void)words[1]; });
  (void)ualarm(1000, 1000);
  const auto low = static_cast<char>(words[0]);
  (void)ualarm(0, 0);
  EXPECT_EQ(low, board.contents("flash")[0]);
}

TEST(sim_devmem_death, ends_the_run_where_there_is_no_space_for_the_flash) {
  const test_board board;
  const rlimit limit{0x100000, 0x100000};
  EXPECT_EXIT((signal(SIGXFSZ, SIG_IGN), setrlimit(RLIMIT_FSIZE, &limit), map_window<uint16_t>(flash)[0]),
              testing::ExitedWithCode(2), "board-sim: .*/flash: File too large");
  EXPECT_FALSE(std::filesystem::exists(board.file("flash")));
}

TEST(sim_devmem_death, carries_out_no_access_that_its_mapping_does_not_allow) {
  const test_board board({"nvram-cell-stuck instance=0 offset=0x7FFE bit=0 level=0"});
  const auto mapped = [](int prot) {
    (void)signal(SIGSEGV, SIG_DFL);
    return static_cast<volatile uint8_t *>(map(0xF4000000, 0x2000, prot));
  };
  const auto cut = [&](size_t at) {
    auto *const bytes = mapped(read_write);
    (void)munmap(const_cast<uint8_t *>(bytes) + at, 0x1000);
    return bytes;
  };
  const auto changed = [&](int prot) {
    auto *const bytes = mapped(read_write);
    (void)mprotect(const_cast<uint8_t *>(bytes), 0x1000, prot);
    return bytes;
  };
  const unique_fd reading(open("/dev/mem", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(mmap(nullptr, 0x1000, read_write, MAP_SHARED, reading.get(), static_cast<off_t>(0xF4000000)), MAP_FAILED);
  EXPECT_EQ(errno, EACCES);
  const auto killed = testing::KilledBySignal(SIGSEGV);
  EXPECT_EXIT(changed(PROT_READ)[0] = 1, killed, "");
  EXPECT_EXIT((void)changed(PROT_NONE)[0], killed, "");
  EXPECT_EXIT(mapped(PROT_READ)[0] = 1, killed, "");
  EXPECT_EXIT((void)mapped(PROT_NONE)[0], killed, "");
  EXPECT_EXIT((void)cut(0)[0], killed, "");
  EXPECT_EXIT((void)cut(0x1000)[0x1000], killed, "");
  EXPECT_EXIT(_exit(cut(0x1000)[0xFFF] == static_cast<uint8_t>(board.contents("nvram0")[0xFFF]) ? 0 : 1),
              testing::ExitedWithCode(0), "");
}

// And so does the start of every sector.
TEST(sim_devmem, has_new_contents_that_differ_from_place_to_place) {
  const test_board board;
  const auto *const words = map_window<uint16_t>(flash);
  EXPECT_NE(board.contents("nvram0"), board.contents("nvram1"));
  EXPECT_NE(board.contents("nvram1"), board.contents("nvram2"));
  for (uint32_t at = 0; at < models::flash_bytes; at += models::flash_sector_bytes) {
    ASSERT_NE((words[at / 2] << 16) | words[at / 2 + 1], (words[at / 2 + 2] << 16) | words[at / 2 + 3]);
    ASSERT_EQ(words[(at + models::flash_sector_bytes) / 2 - 1], 0xFFFF);
  }
}

// --- I/O port -------------------------------------------------------------------------------------------------------

TEST(sim_port_death, ends_the_run_without_privilege_and_elsewhere) {
  const test_board board;
  const auto raised = [](int level) { return signal(SIGSEGV, SIG_DFL), iopl(3), iopl(level); };
  EXPECT_EXIT((raised(2), inl(0x50C)), testing::KilledBySignal(SIGSEGV), "0x50c used without the I/O privilege");
  EXPECT_EXIT((raised(3), outb(1, 0x50C)), testing::KilledBySignal(SIGABRT), "8-bit access to I/O port 0x50c: no dev");
  EXPECT_EXIT((raised(3), inl(0x80)), testing::KilledBySignal(SIGABRT), "32-bit access to I/O port 0x80: no device");
}

}  // namespace

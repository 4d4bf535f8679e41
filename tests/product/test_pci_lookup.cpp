// Finding a hardware type's registers in the kernel's list of PCI functions.
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "tests/support/board.h"

static uint32_t opened;  // files by a stream

extern "C" {
FILE *__real_fopen(const char *path, const char *mode), *__wrap_fopen(const char *path, const char *mode);

FILE *__wrap_fopen(const char *path, const char *mode) {
  ++opened;
  return __real_fopen(path, mode);
}
}

namespace {

constexpr char list_path[] = "proc/bus/pci/devices";
constexpr uint32_t old = 0x1111;
constexpr uint32_t wide = sizeof(long) == 8 ? 0xF4000000 : 0xFFFFFFFC;  // of 38f4000000: all ones are I/O space

TEST(pci_lookup, takes_base_and_length_of_the_bar) {
  const std::string b = "0010 80861234 10 0 0 0 0 0 0 0 0 0 7000\n2eff 10b59030 0 ";  // the bridge, after a function
  const std::string all = b + "9000007f a003 f4000008 f4010004 f4020004 f80000fc 0 80 100 8000 4000 2000 4000000 0 x";
  const std::string macs = "0008 8086105e 0 1000\n0009 8086105e 0 2000\n000a 80861521 0 3000\n0200 8086105e 0 4000\n";
  // clang-format off
  const struct { const char *name; std::string list;
                 uint32_t hwtype, inst, bar, rc, base, len; const char *message; } cases[] = {
      {"I/O space",         all,                  92, 0, 0x10, 0,    0x9000007C, 0x80,      ""},
      {"odd bar, 64-bit",   all,                  92, 0, 0x1C, 0,    0xF4010000, 0x4000,    ""},
      {"64-bit and used",   all,                  92, 0, 0x20, 3903, old,        0x2000,    "<3>_pci_find_cb_base_len(): ERROR: PCI BAR 4 is a 64-bit memory space for 0x2e:0x1f:0x7\n"},
      {"low 7 bits off",    all,                  92, 0, 0x24, 0,    0xF8000080, 0x4000000, ""},
      {"any low bits",      all,                  92, 0, 0x27, 0,    0xF8000080, 0x4000000, ""},
      {"64-bit, unused",    b + "f4000004 0",     92, 0, 0x10, 0,    0xF4000000, 0,         ""},
      {"64-bit I/O",        b + "f4000005 1",     92, 0, 0x10, 0,    0xF4000004, 0,         ""},
      {"size of before",    b + "0 0 f4000000",   92, 0, 0x18, 0,    0xF4000000, 0x7000,    ""},
      {"wide column",       b + "0 0 38f4000000", 92, 0, 0x18, 0,    wide,       0x7000,    ""},
      {"0x alone",          b + "0x 0x f4000000", 92, 0, 0x18, 0,    0xF4000000, 0x7000,    ""},
      {"first of three",    macs,                 40, 0, 0x10, 0,    0x1000,     0,         ""},
      {"third of three",    macs,                 40, 2, 0x10, 0,    0x4000,     0,         ""},
      {"fourth of three",   macs,                 40, 3, 0x10, 3901, old,        old,       "<3>mmap_get_map_pci(): The device could not be found for vendorID: 32902 deviceID: 4190 instance: 3.\n"},
      {"instance too high", "",                   92, 1, 0x10, 3902, old,        old,       "<3>_pci_get_vendor_device_id(): ERROR: Unable to find memory map for hardware type 92(HWTYPE_PLX_PCI         - PLX Technology PCI Bridge), inst: 1\n"},
      {"no PCI type",       macs,                 32, 0, 0x10, 3904, old,        old,       ""},
  };
  // clang-format on
  const test_board board;
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    std::ofstream(board.file(list_path)) << c.list;
    uint32_t base = old, len = old;
    const size_t open = open_descriptors();
    opened = 0;
    EXPECT_EQ(stdout_of([&] { EXPECT_EQ(mmap_get_map_pci(c.hwtype, c.inst, c.bar, &base, &len), c.rc); }), c.message);
    EXPECT_EQ(std::pair(base, len), std::pair(c.base, c.len));
    EXPECT_EQ(opened, c.rc == 3902 || c.rc == 3904 ? 0 : c.inst + (c.rc == 3901 ? 1 : 2)) << "scans";
    EXPECT_EQ(open_descriptors(), open);
  }
}

TEST(pci_lookup, searches_from_a_position_on) {
  using position = std::array<uint32_t, 4>;  // interface, bus, device, function
  const std::string list = "0008 10b59030\n0113 8086105e\n0301 8086105e\n0408 10b59030\n";
  // A piece of a long line has 1022 characters: the line behind the blanks stays whole, or begins with 2e and 00.
  const std::string whole = std::string(1022, ' ') + "2e00 8086105e\n";
  const std::string apart = std::string(1020, ' ') + "2e00 8086105e\n";
  // clang-format off
  const struct { std::string list; position from; uint32_t rc; position to; } cases[] = {
      {list,  {7, 1,   2,  3}, 0,    {0, 1,    2, 3}},
      {list,  {7, 1,   2,  4}, 0,    {0, 3,    0, 1}},
      {list,  {7, 1,   1,  7}, 0,    {0, 1,    2, 3}},
      {list,  {7, 1,   1,  8}, 0,    {0, 1,    2, 3}},
      {list,  {7, 0,   31, 8}, 0,    {0, 1,    2, 3}},
      {list,  {7, 3,   0,  2}, 3901, {0, 3,    0, 0}},  // the next bus resets device and function
      {list,  {7, 255, 31, 8}, 3901, {7, 256,  0, 0}},
      {whole, {7, 0,   0,  0}, 0,    {0, 0x2E, 0, 0}},
      {apart, {7, 0,   0,  0}, 0,    {0, 0,    0, 0}},
  };
  // clang-format on
  const test_board board;
  for (auto [text, at, rc, to] : cases) {
    std::ofstream(board.file(list_path)) << text;
    opened = 0;
    EXPECT_EQ(pci_find_by_vendor_device(0x8086, 0x105E, &at[0], &at[1], &at[2], &at[3]), rc);
    EXPECT_EQ(at, to);
    EXPECT_EQ(opened, to[1] > 255 ? 0 : 1);
  }
}

TEST(pci_lookup, scans_until_a_line_is_found_whatever_the_statuses) {
  const test_board board;
  std::ofstream(board.file(list_path)) << "1 0\n2 0\n3 0\n";
  const auto stop_at = [](pci_dev_line_t *line, void *ctx) {
    line->m_not_found = line->m_busdevfn != *static_cast<uint32_t *>(ctx) ? 1 : 0;
    return 500 + line->m_busdevfn;
  };
  for (auto [at, rc] : {std::pair{1U, 501U}, {2U, 502U}, {3U, 503U}, {4U, 3901U}})
    EXPECT_EQ(_pci_scan_devices_file(stop_at, &at), rc);
}

TEST(pci_lookup, asserts_its_arguments) {
  EXPECT_EQ(mmap_is_cat1(), 0U);
  uint32_t out = 0;
  constexpr char source[] = "mmap/mmap_pci_velto_or.cpp";
  // clang-format off
  const struct { uint32_t hwtype, bar; uint32_t *len; const char *text; } cases[] = {
      {153, 0x0C, nullptr, "(id >= HWTYPE_NULL) && (id < HWTYPE_MAX)"},
      {152, 0x0C, nullptr, "base && len"},
      {152, 0x0F, &out,    "(bar >= 0x10) && (bar <= 0x24)"},
      {152, 0x28, &out,    "(bar >= 0x10) && (bar <= 0x24)"},
  };
  // clang-format on
  for (const auto &c : cases)
    expect_assertion([&] { (void)mmap_get_map_pci(c.hwtype, 0, c.bar, &out, c.len); }, source, "mmap_get_map_pci",
                     c.text);
  for (const size_t missing : {0U, 1U, 2U, 3U}) {
    uint32_t *p[] = {&out, &out, &out, &out};
    p[missing] = nullptr;
    expect_assertion([&] { (void)pci_find_by_vendor_device(0, 0, p[0], p[1], p[2], p[3]); }, source,
                     "pci_find_by_vendor_device", "pci_if && pci_bus && pci_dev && pci_func");
  }
}

}  // namespace

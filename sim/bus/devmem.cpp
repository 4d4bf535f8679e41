// devmem.cpp: the windows behind /dev/mem: contents, mappings, and the way of an access to its model.
#include "sim/bus/devmem.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "sim/bus/layout.h"
#include "sim/bus/trace.h"
#include "sim/bus/trap.h"
#include "sim/devices/flash.h"
#include "sim/devices/nvram.h"
#include "sim/devices/port.h"
#include "sim/host/files.h"
#include "sim/host/real.h"

namespace sim {

namespace {

constexpr size_t flash_window = 3;
static_assert(windows[flash_window].length == flash_bytes);

// Reads of the array that trap before the flash is opened for direct reading: fewer than a status poll needs, and
// opening and closing costs as much.
constexpr unsigned reads_before_opening = 4;

struct mapping {
  uintptr_t address;
  size_t length;
  size_t window;
  uint32_t offset;  // within the window
  int prot;         // as asked for

  [[nodiscard]] bool holds(uintptr_t a, size_t bytes) const {
    return a >= address && a - address < length && bytes <= length - (a - address);
  }
};

// Ready before any code of the library's start runs.
constinit const options *board = nullptr;
constinit std::array<backing_file, windows.size()> store;
constinit std::array<nvram_model, flash_window> nvram{};
constinit flash_model flash{};
constinit std::vector<mapping> mappings{};
constinit std::vector<fault> refusals{};  // of mmap
constinit uint64_t map_calls = 0;
constinit bool trap_all = false;     // everything goes into the log
constinit bool flash_open = false;   // the flash's mappings allow reading
constinit unsigned array_reads = 0;  // trapped ones in a row

// A new device's contents: bytes that differ from place to place, so that nothing lost or mixed up goes unseen. In the
// flash they fill the first part of each sector, as records do; the rest is erased.
class new_contents {
 public:
  explicit new_contents(size_t window)
      : piece(window == flash_window ? flash_sector_bytes : windows[window].length, 0xFF),
        records(window == flash_window ? 0x1000 : piece.size()),
        state(0x9E3779B9U * static_cast<uint32_t>(window + 1)) {}

  // The next piece. Small ones are written much faster than a large one.
  std::span<const uint8_t> next() {
    for (auto &byte : std::span(piece).first(records)) {
      state = state * 1664525U + 1013904223U;
      byte = static_cast<uint8_t>(state >> 24U);
    }
    return piece;
  }

 private:
  std::vector<uint8_t> piece;
  size_t records;
  uint32_t state;
};

std::string contents_path(size_t window) {
  return board->state + "/" + windows[window].name;
}

bool open_contents(size_t window, std::string *error) {
  new_contents contents(window);
  return store[window].open(
      contents_path(window), windows[window].length, [&] { return contents.next(); }, error);
}

// The access that a mapping may have without its model.
int direct_prot(const mapping &m) {
  if (trap_all) return PROT_NONE;
  if (m.window != flash_window) return nvram[m.window].healthy() ? m.prot : PROT_NONE;
  return flash_open ? m.prot & PROT_READ : PROT_NONE;
}

void flash_set_open(bool open) {
  array_reads = 0;
  if (open == flash_open) return;
  flash_open = open;
  for (const auto &m : mappings) {
    if (m.window != flash_window) continue;
    if (mprotect(reinterpret_cast<void *>(m.address), m.length, direct_prot(m)) != 0)
      trap_die("flash window: %s", strerror(errno));
  }
}

bool flash_power_up(std::string *error) {
  if (!open_contents(flash_window, error)) return false;
  flash.start(store[flash_window].bytes(), *board);
  flash_open = !trap_all && flash.reads_plainly();
  return true;
}

// Contents that do not exist yet are made at the first access: most runs of a short test never make one. Until then
// mappings hold the place.
void flash_first_access() {
  std::string error;
  if (!flash_power_up(&error)) trap_die("%s", error.c_str());
  for (const auto &m : mappings) {
    if (m.window != flash_window) continue;
    void *const address = reinterpret_cast<void *>(m.address);
    if (store[flash_window].map(address, m.length, direct_prot(m), MAP_SHARED | MAP_FIXED, m.offset) == MAP_FAILED)
      trap_die("flash window: %s", strerror(errno));
  }
}

const mapping *mapping_at(uintptr_t address, size_t bytes) {
  for (const auto &m : mappings)
    if (m.holds(address, bytes)) return &m;
  return nullptr;
}

bool covers(uintptr_t address, size_t bytes, bool write) {
  const auto *const m = mapping_at(address, bytes);
  return m != nullptr && (m->prot & (write ? PROT_WRITE : PROT_READ)) != 0;
}

uint16_t word_read(size_t window, uint32_t offset) {
  return window == flash_window ? flash.read(offset) : nvram[window].read(offset);
}

// The flash has no byte lanes: bytes that are not driven read as ones.
void word_write(size_t window, uint32_t offset, uint16_t word, uint16_t lanes) {
  if (window == flash_window) {
    flash.write(offset, static_cast<uint16_t>(word | ~lanes));
  } else {
    nvram[window].write(offset, word, lanes);
  }
}

// One access as cycles of the 16-bit local bus, `visit(word offset, lanes, shift)`, the lowest first. The shift is
// the place of the bus word's bit 0 in the data, negative when it lies below.
template <class Visit>
void for_each_cycle(uint32_t offset, unsigned width, Visit visit) {
  const uint32_t end = offset + width / 8;
  for (uint32_t word = offset & ~1U; word < end; word += 2) {
    unsigned lanes = 0xFFFF;
    if (word < offset) lanes &= 0xFF00U;
    if (word + 1 >= end) lanes &= 0x00FFU;
    visit(word, static_cast<uint16_t>(lanes), 8 * (static_cast<int>(word) - static_cast<int>(offset)));
  }
}

const mapping &accessed(uintptr_t address, unsigned width) {
  const auto &m = *mapping_at(address, width / 8);
  if (!store[m.window].is_open()) flash_first_access();
  return m;
}

uint32_t window_read(uintptr_t address, unsigned width) {
  const auto &m = accessed(address, width);
  const auto offset = static_cast<uint32_t>(m.offset + (address - m.address));
  uint32_t data = 0;
  for_each_cycle(offset, width, [&](uint32_t at, uint16_t lanes, int shift) {
    const uint32_t word = word_read(m.window, at) & uint32_t{lanes};
    data |= shift < 0 ? word >> -shift : word << shift;
  });
  trace_access(windows[m.window].name, 'r', width, offset, data);
  if (m.window == flash_window && !trap_all && flash.reads_plainly() && ++array_reads >= reads_before_opening)
    flash_set_open(true);
  return data;
}

void window_write(uintptr_t address, unsigned width, uint32_t data) {
  const auto &m = accessed(address, width);
  const auto offset = static_cast<uint32_t>(m.offset + (address - m.address));
  trace_access(windows[m.window].name, 'w', width, offset, data);
  for_each_cycle(offset, width, [&](uint32_t at, uint16_t lanes, int shift) {
    const uint32_t word = shift < 0 ? data << -shift : data >> shift;
    word_write(m.window, at, static_cast<uint16_t>(word & lanes), lanes);
  });
  array_reads = 0;
  if (m.window == flash_window && flash_open && !flash.reads_plainly()) flash_set_open(false);
}

constexpr trap_bus bus{covers, window_read, window_write, port_allowed, port_in, port_out};

size_t whole_pages(size_t length) {
  return (length + page_size - 1) & ~(page_size - 1);
}

void *refuse(int error) {
  errno = error;
  return MAP_FAILED;
}

}  // namespace

bool devmem_start(const options &opts, std::string *error) {
  devmem_stop();
  board = &opts;
  for (size_t i = 0; i < flash_window; i++) {
    if (!open_contents(i, error)) return false;
    nvram[i].start(store[i].bytes(), static_cast<unsigned>(i), opts);
  }
  trap_all = !opts.trace.empty();
  flash_open = false;
  array_reads = 0;
  if (file_exists(contents_path(flash_window)) && !flash_power_up(error)) return false;
  port_start(opts);
  refusals.clear();
  std::ranges::copy_if(opts.faults, std::back_inserter(refusals),
                       [](const fault &f) { return f.id == fault_id::mem_mmap_refused; });
  map_calls = 0;
  return true;
}

void devmem_stop() {
  for (const auto &m : mappings)
    (void)sys::munmap(reinterpret_cast<void *>(m.address), m.length);
  mappings.clear();
  trap_remove();
  for (auto &contents : store)
    contents.close();
}

void *devmem_map(size_t length, int prot, int flags, uint64_t phys) {
  map_calls++;
  for (const auto &f : refusals)
    if (f.hits(map_calls)) return refuse(f.error());
  const int sharing = flags & MAP_TYPE;
  const bool shared = sharing == MAP_SHARED || sharing == MAP_SHARED_VALIDATE;
  if (length == 0 || phys % page_size != 0 || !shared || (flags & MAP_FIXED) != 0) return refuse(EINVAL);
  if (length > SIZE_MAX - page_size) return refuse(ENOMEM);
  const size_t whole = whole_pages(length);
  const auto found = std::ranges::find_if(windows, [&](const window &w) {
    return phys >= w.base && phys - w.base < w.length && whole <= w.length - (phys - w.base);
  });
  if (found == windows.end()) return refuse(EPERM);
  const auto index = static_cast<size_t>(found - windows.begin());
  mapping m{0, whole, index, static_cast<uint32_t>(phys - found->base), prot};
  void *const address = store[index].is_open()
                            ? store[index].map(nullptr, whole, direct_prot(m), MAP_SHARED, m.offset)
                            : sys::mmap(nullptr, whole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (address == MAP_FAILED) return MAP_FAILED;
  m.address = reinterpret_cast<uintptr_t>(address);
  mappings.push_back(m);
  trap_install(bus);
  return address;
}

bool devmem_unmap(void *addr, size_t length) {
  const auto address = reinterpret_cast<uintptr_t>(addr);
  if (length == 0 || address % page_size != 0 || length > SIZE_MAX - page_size) return false;
  const size_t whole = whole_pages(length);
  const auto found = std::ranges::find_if(mappings, [&](const mapping &m) { return m.holds(address, whole); });
  if (found == mappings.end()) return false;
  const mapping m = *found;
  mappings.erase(found);
  const size_t before = address - m.address;
  const size_t after = m.length - before - whole;
  if (before != 0) mappings.push_back({m.address, before, m.window, m.offset, m.prot});
  if (after != 0)
    mappings.push_back({address + whole, after, m.window, static_cast<uint32_t>(m.offset + before + whole), m.prot});
  (void)sys::munmap(addr, whole);
  return true;
}

int devmem_iopl(int level) {
  if (level > 0) trap_install(bus);
  return port_set_level(level);
}

}  // namespace sim

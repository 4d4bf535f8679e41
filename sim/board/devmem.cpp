#include "sim/board/devmem.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <span>

#include "sim/base/real.h"
#include "sim/bus/trace.h"
#include "sim/bus/trampoline.h"

namespace sim {

namespace {

using on_the_bus = std::lock_guard<bus_lock>;

// Reads of the array that trap before the flash is opened for direct reading: fewer than a status poll needs, and
// opening and closing costs as much.
constexpr unsigned reads_before_opening = 4;

// A new device's contents: bytes that differ from place to place, so that nothing lost or mixed up goes unseen. In the
// flash they fill the first part of each sector, as records do; the rest is erased.
class new_contents {
 public:
  new_contents(size_t window, size_t piece, size_t records)
      : m_piece(piece, 0xFF), m_records(records), m_state(0x9E3779B9U * static_cast<uint32_t>(window + 1)) {}

  // The next piece. Small ones are written much faster than a large one.
  std::span<const uint8_t> next() {
    for (auto &byte : std::span(m_piece).first(m_records)) {
      m_state = m_state * 1664525U + 1013904223U;
      byte = static_cast<uint8_t>(m_state >> 24U);
    }
    return m_piece;
  }

 private:
  std::vector<uint8_t> m_piece;
  size_t m_records;
  uint32_t m_state;
};

// Why the bridge does not decode a window: its base address register holds no place in memory. Null if it does.
const fault *undecoded(const window &w, const options &opts) {
  const auto found = std::ranges::find_if(opts.faults, [&](const fault &f) {
    return (f.id == fault_id::bar_io || f.id == fault_id::bar_missing) && f.get(parm::bar) == (w.bar - 0x10) / 4;
  });
  return found == opts.faults.end() ? nullptr : &*found;
}

size_t whole_pages(size_t length) {
  return (length + page_size - 1) & ~(page_size - 1);
}

// Holds the program's signals back: their handlers may use the device that is being made.
class no_signals {
 public:
  no_signals() { (void)::syscall(SYS_rt_sigprocmask, SIG_BLOCK, &all, &m_before, sizeof(m_before)); }
  no_signals(const no_signals &) = delete;
  no_signals &operator=(const no_signals &) = delete;
  ~no_signals() {
    const keep_errno kept;
    (void)::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &m_before, nullptr, sizeof(m_before));
  }

 private:
  // As the kernel has them: the C library's sets are longer, and its functions leave two signals out.
  static constexpr uint64_t all = ~uint64_t{0};
  uint64_t m_before = 0;
};

void *refuse(int error) {
  errno = error;
  return MAP_FAILED;
}

}  // namespace

devmem::devmem(const options &opts) : m_opts(opts), m_trap_all(!opts.trace.empty()), m_port(opts) {
  for (size_t i = 0; i < windows.size(); ++i)
    m_silent[i] = undecoded(windows[i], opts);
}

devmem::~devmem() {
  for (const auto &m : m_mappings)
    (void)sys::munmap(reinterpret_cast<void *>(m.address), m.length);
  trap_remove();
}

bool devmem::power_up(std::string *error) {
  for (size_t i = 0; i < flash_window; ++i) {
    if (!open_contents(i, error)) return false;
    m_nvram[i].start(m_contents[i].bytes(), static_cast<unsigned>(i), m_opts, audit(i));
  }
  return !file_exists(contents_path(flash_window)) || power_up_flash(error);
}

std::string devmem::contents_path(size_t window) const {
  return m_opts.state + "/" + windows[window].name;
}

bool devmem::open_contents(size_t window, std::string *error) {
  const size_t length = windows[window].length;
  new_contents contents = window == flash_window ? new_contents(window, models::flash_sector_bytes, 0x1000)
                                                 : new_contents(window, length, length);
  return m_contents[window].open(
      contents_path(window), length, [&] { return contents.next(); }, error);
}

// --- Audit of power cuts --------------------------------------------------------------------------------------------

cut_audit *devmem::audit(size_t window) {
  if (m_opts.cut_audit.empty()) return nullptr;
  const auto bytes = m_contents[window].bytes();
  const bool is_flash = window == flash_window;
  const auto fault = is_flash ? std::string("flash-power-cut") : "nvram-power-cut instance=" + std::to_string(window);
  return &m_audits[window].emplace(windows[window].name, bytes,
                                   is_flash ? models::flash_sector_bytes : windows[window].length, fault);
}

void devmem::write_audit() {
  std::string text;
  for (auto &audit : m_audits)
    if (audit && ::getpid() == m_owner) text += audit->table();
  if (text.empty()) return;
  text.insert(0, cut_audit::heading);
  const file to{sys::open(m_opts.cut_audit.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC)};
  if (to.is_open() && sys::write(to.fd(), text.data(), text.size()) == static_cast<ssize_t>(text.size())) return;
  (void)std::fprintf(stderr, "board-sim: %s\n", os_error(m_opts.cut_audit).c_str());
}

// --- Flash ----------------------------------------------------------------------------------------------------------

bool devmem::power_up_flash(std::string *error) {
  if (!open_contents(flash_window, error)) return false;
  m_flash.start(m_contents[flash_window].bytes(), m_opts, audit(flash_window));
  m_flash_open = may_open_flash();
  return true;
}

bool devmem::may_open_flash() const {
  return !m_trap_all && m_silent[flash_window] == nullptr && m_flash.reads_plainly();
}

// Contents that do not exist yet are made at the first access: most runs of a short test never make one. Until then
// mappings hold the place.
void devmem::first_flash_access() {
  const no_signals held;
  std::string error;
  if (!power_up_flash(&error)) end_run(error);
  for (const auto &m : m_mappings) {
    if (m.window != flash_window) continue;
    void *const address = reinterpret_cast<void *>(m.address);
    if (m_contents[flash_window].map(address, m.length, direct_prot(m), MAP_SHARED | MAP_FIXED, m.offset) == MAP_FAILED)
      trap_die("flash window: %s", strerror(errno));
  }
  set_answered();
}

void devmem::set_flash_open(bool open) {
  m_array_reads = 0;
  if (open == m_flash_open) return;
  m_flash_open = open;
  for (const auto &m : m_mappings) {
    if (m.window != flash_window) continue;
    if (sys::mprotect(reinterpret_cast<void *>(m.address), m.length, direct_prot(m)) != 0)
      trap_die("flash window: %s", strerror(errno));
  }
  set_answered();
}

// --- Mappings -------------------------------------------------------------------------------------------------------

// The access that a mapping may have without its model.
int devmem::direct_prot(const mapping &m) const {
  if (m_trap_all || m_silent[m.window] != nullptr) return PROT_NONE;
  if (m.window != flash_window && !m_nvram[m.window].healthy()) return PROT_NONE;
  if (m.window != flash_window) return m_audits[m.window] ? m.prot & PROT_READ : m.prot;
  return m_flash_open ? m.prot & PROT_READ : PROT_NONE;
}

void devmem::set_answered() const {
  std::array<device_range, most_ranges> ranges{};
  const size_t count = std::min(ranges.size(), m_mappings.size());
  for (size_t i = 0; i < count; ++i) {
    const auto &m = m_mappings[i];
    const int answered = m.prot & ~direct_prot(m);
    ranges[i] = {m.address, m.address + m.length, (answered & PROT_READ) != 0, (answered & PROT_WRITE) != 0};
  }
  trampoline_ranges(std::span(ranges).first(count));
}

void *devmem::map(size_t length, int prot, int flags, uint64_t phys, bool may_write) {
  const on_the_bus held(m_lock);
  for (const auto &f : m_opts.faults)
    if (f.id == fault_id::mem_mmap_refused && f.strikes()) return refuse(f.error());
  const int sharing = flags & MAP_TYPE;
  const bool shared = sharing == MAP_SHARED || sharing == MAP_SHARED_VALIDATE;
  if (length == 0 || phys % page_size != 0 || !shared || (flags & MAP_FIXED) != 0) return refuse(EINVAL);
  if (length > SIZE_MAX - page_size) return refuse(ENOMEM);
  if ((prot & PROT_WRITE) != 0 && !may_write) return refuse(EACCES);
  const size_t whole = whole_pages(length);
  const auto *const found = std::ranges::find_if(windows, [&](const window &w) {
    return phys >= w.base && phys - w.base < w.length && whole <= w.length - (phys - w.base);
  });
  if (found == windows.end()) return refuse(EPERM);
  const auto index = static_cast<size_t>(found - windows.begin());
  mapping m{0, whole, index, static_cast<uint32_t>(phys - found->base), prot, may_write};
  void *const address = m_contents[index].is_open()
                            ? m_contents[index].map(nullptr, whole, direct_prot(m), MAP_SHARED, m.offset)
                            : sys::mmap(nullptr, whole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (address == MAP_FAILED) return MAP_FAILED;
  m.address = reinterpret_cast<uintptr_t>(address);
  m_mappings.push_back(m);
  trap_install(this, m_opts.patch);
  set_answered();
  return address;
}

bool devmem::unmap(void *addr, size_t length) {
  const auto address = reinterpret_cast<uintptr_t>(addr);
  if (length == 0 || address % page_size != 0 || length > SIZE_MAX - page_size) return false;
  const size_t whole = whole_pages(length);
  const on_the_bus held(m_lock);
  if (mapping_at(address, whole) == nullptr) return false;
  forget(address, whole);
  (void)sys::munmap(addr, whole);
  return true;
}

void devmem::mapped_over(const void *addr, size_t length) {
  const on_the_bus held(m_lock);
  forget(reinterpret_cast<uintptr_t>(addr), whole_pages(length));
}

std::optional<int> devmem::protect(void *addr, size_t length, int prot) {
  const auto begin = reinterpret_cast<uintptr_t>(addr);
  if (begin % page_size != 0 || length > SIZE_MAX - page_size) return std::nullopt;
  const uintptr_t end = begin + whole_pages(length);
  const on_the_bus held(m_lock);
  if (!meets(begin, end)) return std::nullopt;
  split(begin);
  split(end);
  int result = 0;
  for (uintptr_t at = begin; at < end && result == 0;) {
    uintptr_t next = end;
    int rights = prot;
    for (auto &m : m_mappings) {
      if (m.address > at) next = std::min(next, m.address);
      if (m.address != at) continue;
      if ((prot & PROT_WRITE) != 0 && !m.may_write) return fail(EACCES);
      m.prot = prot;
      rights = direct_prot(m);
      next = std::min(next, at + m.length);
    }
    result = sys::mprotect(reinterpret_cast<void *>(at), next - at, rights);
    at = next;
  }
  set_answered();
  return result;
}

std::optional<void *> devmem::remap(void *addr, size_t length, size_t new_length, int flags, void *to) {
  const auto begin = reinterpret_cast<uintptr_t>(addr);
  if (length > SIZE_MAX - page_size || new_length > SIZE_MAX - page_size) return std::nullopt;
  const size_t whole = whole_pages(length);
  const size_t new_whole = whole_pages(new_length);
  const on_the_bus held(m_lock);
  if (!meets(begin, begin + std::max(whole, page_size))) return std::nullopt;
  const auto *const found = mapping_at(begin, whole);
  if (begin % page_size != 0 || whole == 0 || (flags & ~(MREMAP_MAYMOVE | MREMAP_FIXED)) != 0) return refuse(EINVAL);
  if (found == nullptr || new_whole > whole) return refuse(EFAULT);
  auto moved = *found;
  moved.offset += static_cast<uint32_t>(begin - moved.address);
  moved.length = new_whole;
  void *const at = sys::mremap(addr, length, new_length, flags, to);
  if (at == MAP_FAILED) return at;
  moved.address = reinterpret_cast<uintptr_t>(at);
  forget(begin, whole);
  forget(moved.address, new_whole);
  m_mappings.push_back(moved);
  set_answered();
  return at;
}

bool devmem::meets(uintptr_t begin, uintptr_t end) const {
  return std::ranges::any_of(m_mappings,
                             [&](const mapping &m) { return m.address < end && begin < m.address + m.length; });
}

// Makes two mappings of the one that has this address within.
void devmem::split(uintptr_t at) {
  for (size_t i = 0; i < m_mappings.size(); ++i) {
    auto upper = m_mappings[i];
    if (!upper.holds(at, 1) || upper.address == at) continue;
    const size_t lower = at - upper.address;
    m_mappings[i].length = lower;
    upper.address = at;
    upper.length -= lower;
    upper.offset += static_cast<uint32_t>(lower);
    m_mappings.push_back(upper);
  }
}

// Keeps what is outside [begin, begin + length). Allocates only where a mapping is inside: an allocator may have
// called.
void devmem::forget(uintptr_t begin, size_t length) {
  if (!meets(begin, begin + length)) return;
  split(begin);
  split(begin + length);
  std::erase_if(m_mappings, [&](const mapping &m) { return m.address - begin < length; });
  set_answered();
}

const devmem::mapping *devmem::mapping_at(uintptr_t address, size_t bytes) const {
  const auto found = std::ranges::find_if(m_mappings, [&](const mapping &m) { return m.holds(address, bytes); });
  return found == m_mappings.end() ? nullptr : &*found;
}

// --- Accesses -------------------------------------------------------------------------------------------------------

uint16_t devmem::word_read(size_t window, uint32_t offset, uint16_t lanes) {
  if (m_silent[window] != nullptr) {
    if ((models::word_get(m_contents[window].bytes(), offset) | ~lanes) != ~0) m_silent[window]->fired();
    return 0xFFFF;
  }
  return window == flash_window ? m_flash.read(offset) : m_nvram[window].read(offset, lanes);
}

// The flash has no byte lanes: bytes that are not driven read as ones.
void devmem::word_write(size_t window, uint32_t offset, uint16_t word, uint16_t lanes) {
  if (m_silent[window] != nullptr) return m_silent[window]->fired();
  if (window == flash_window) {
    m_flash.write(offset, static_cast<uint16_t>(word | ~lanes));
  } else {
    m_nvram[window].write(offset, word, lanes);
  }
}

void devmem::tell_ready(size_t window) const {
  if (window == flash_window && bus_is_watched()) flash_ready_passed(!m_flash.is_busy());
}

uint32_t devmem::window_read(size_t window, uint32_t offset, unsigned width) {
  uint32_t data = 0;
  for_each_cycle(offset, width, [&](uint32_t at, uint16_t lanes, int shift) {
    const uint32_t word = word_read(window, at, lanes) & uint32_t{lanes};
    data |= shift < 0 ? word >> -shift : word << shift;
  });
  bus_passed({windows[window].name, 'r', width, offset, data});
  tell_ready(window);
  if (window == flash_window && may_open_flash() && ++m_array_reads >= reads_before_opening) set_flash_open(true);
  return data;
}

void devmem::window_write(size_t window, uint32_t offset, unsigned width, uint32_t data) {
  bus_passed({windows[window].name, 'w', width, offset, data});
  for_each_cycle(offset, width, [&](uint32_t at, uint16_t lanes, int shift) {
    const uint32_t word = shift < 0 ? data << -shift : data >> shift;
    word_write(window, at, static_cast<uint16_t>(word & lanes), lanes);
  });
  tell_ready(window);
  m_array_reads = 0;
  if (window == flash_window && m_flash_open && !may_open_flash()) set_flash_open(false);
}

// The mapping of a whole access that asks for this protection, its device ready; or null.
const devmem::mapping *devmem::accessed(uintptr_t address, unsigned width, int prot) {
  const auto *const m = mapping_at(address, width / 8);
  if (m == nullptr || (m->prot & prot) == 0) return nullptr;
  if (!m_contents[m->window].is_open()) first_flash_access();
  return m;
}

bool devmem::holds(uintptr_t address) {
  const on_the_bus held(m_lock);
  return mapping_at(address, 1) != nullptr;
}

// The bus has 32 bits: longer accesses come as two, the lower half first.
bool devmem::load(uintptr_t address, unsigned width, uint64_t *data) {
  const on_the_bus held(m_lock);
  const auto *const m = accessed(address, width, PROT_READ);
  if (m == nullptr) return false;
  const auto offset = static_cast<uint32_t>(m->offset + (address - m->address));
  *data = window_read(m->window, offset, std::min(width, 32U));
  if (width == 64) *data |= uint64_t{window_read(m->window, offset + 4, 32)} << 32;
  return true;
}

bool devmem::store(uintptr_t address, unsigned width, uint64_t data) {
  const on_the_bus held(m_lock);
  const auto *const m = accessed(address, width, PROT_WRITE);
  if (m == nullptr) return false;
  const auto offset = static_cast<uint32_t>(m->offset + (address - m->address));
  window_write(m->window, offset, std::min(width, 32U), static_cast<uint32_t>(data));
  if (width == 64) window_write(m->window, offset + 4, 32, static_cast<uint32_t>(data >> 32));
  return true;
}

// --- I/O port -------------------------------------------------------------------------------------------------------

int devmem::set_io_level(int level) {
  const on_the_bus held(m_lock);
  if (level > 0) trap_install(this, m_opts.patch);
  return m_port.set_level(level);
}

bool devmem::port_allowed() {
  const on_the_bus held(m_lock);
  return m_port.allowed();
}

uint32_t devmem::port_in(uint16_t port, unsigned width) {
  const on_the_bus held(m_lock);
  return m_port.in(port, width);
}

void devmem::port_out(uint16_t port, unsigned width, uint32_t data) {
  const on_the_bus held(m_lock);
  m_port.out(port, width, data);
}

}  // namespace sim

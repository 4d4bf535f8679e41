// devmem.h: the memory side of the board: the windows behind /dev/mem, the trapped accesses, I/O port 0x50C.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "sim/base/files.h"
#include "sim/base/lock.h"
#include "sim/base/options.h"
#include "sim/bus/layout.h"
#include "sim/bus/trap.h"
#include "sim/devices/cut_audit.h"
#include "sim/devices/flash.h"
#include "sim/devices/nvram.h"
#include "sim/devices/port.h"

namespace sim {

// Any thread may use it at any time.
class devmem final : public cpu_bus {
 public:
  // `opts` must stay as long as the object.
  explicit devmem(const options &opts);

  // Drops every mapping; contents are in their files.
  ~devmem() override;

  // Powers the device models up and creates what the state directory lacks of their contents: nvram0, nvram1 and nvram2
  // at once, flash at the first access to it. Returns false and says why in *error when the state directory cannot be
  // used.
  [[nodiscard]] bool power_up(std::string *error);

  // mmap() of /dev/mem: physical range [phys, phys + length), rounded up to whole pages. A device may be mapped several
  // times. A mapping puts the handler of trapped accesses in place.
  //   prot, flags  as for mmap(); MAP_SHARED without MAP_FIXED
  //   may_write    the descriptor is open for writing
  // Returns MAP_FAILED with errno set: EINVAL for an offset within a page, no length or other flags; EACCES for writing
  // without may_write; EPERM where no window holds the whole range.
  [[nodiscard]] void *map(size_t length, int prot, int flags, uint64_t phys, bool may_write);

  // munmap() of a mapping or a part of it. Returns false, with nothing done, if [addr, addr + length) does not lie in
  // one mapping.
  [[nodiscard]] bool unmap(void *addr, size_t length);

  // mprotect() and mremap() of a range. They return nothing, with nothing done, if no mapping is in it. A mapping moves
  // as a whole or in part, but does not grow.
  [[nodiscard]] std::optional<int> protect(void *addr, size_t length, int prot);
  [[nodiscard]] std::optional<void *> remap(void *addr, size_t length, size_t new_length, int flags, void *to);

  // Forgets the mappings in [addr, addr + length), which was unmapped or mapped over.
  void mapped_over(const void *addr, size_t length);

  // iopl(), level 0 to 3. Returns 0, or -1 with errno set. At level 3 the process may use the port.
  [[nodiscard]] int set_io_level(int level);

  [[nodiscard]] io_port &port() { return m_port; }

  // Adds the audit of power cuts, if there is one, to its file. If that fails, a message on standard error says so.
  void write_audit();

  // The processor's accesses.
  [[nodiscard]] bool holds(uintptr_t address) override;
  [[nodiscard]] bool load(uintptr_t address, unsigned width, uint64_t *data) override;
  [[nodiscard]] bool store(uintptr_t address, unsigned width, uint64_t data) override;
  [[nodiscard]] bool port_allowed() override;
  [[nodiscard]] uint32_t port_in(uint16_t port, unsigned width) override;
  void port_out(uint16_t port, unsigned width, uint32_t data) override;

 private:
  static constexpr size_t flash_window = 3;
  static_assert(windows[flash_window].length == models::flash_bytes);

  struct mapping {
    uintptr_t address;
    size_t length;
    size_t window;
    uint32_t offset;  // within the window
    int prot;         // as asked for
    bool may_write;   // mprotect() may ask for that

    [[nodiscard]] bool holds(uintptr_t a, size_t bytes) const {
      return a >= address && a - address < length && bytes <= length - (a - address);
    }
  };

  const options &m_opts;
  const bool m_trap_all;  // everything goes into the log
  bus_lock m_lock;
  std::array<backing_file, windows.size()> m_contents;
  std::array<const fault *, windows.size()> m_silent{};  // why the bridge does not decode the window
  std::array<nvram_model, flash_window> m_nvram;
  flash_model m_flash;
  std::array<std::optional<cut_audit>, windows.size()> m_audits;
  const pid_t m_owner = ::getpid();  // whose run is audited
  bool m_flash_open = false;         // its mappings allow reading
  unsigned m_array_reads = 0;        // trapped ones in a row
  io_port m_port;
  std::vector<mapping> m_mappings;

  [[nodiscard]] std::string contents_path(size_t window) const;
  [[nodiscard]] bool open_contents(size_t window, std::string *error);
  [[nodiscard]] cut_audit *audit(size_t window);
  [[nodiscard]] bool power_up_flash(std::string *error);
  [[nodiscard]] bool may_open_flash() const;
  void first_flash_access();
  void set_flash_open(bool open);

  [[nodiscard]] int direct_prot(const mapping &m) const;
  void set_answered() const;
  [[nodiscard]] bool meets(uintptr_t begin, uintptr_t end) const;
  void split(uintptr_t at);
  void forget(uintptr_t begin, size_t length);
  [[nodiscard]] const mapping *mapping_at(uintptr_t address, size_t bytes) const;
  [[nodiscard]] const mapping *accessed(uintptr_t address, unsigned width, int prot);
  [[nodiscard]] uint32_t window_read(size_t window, uint32_t offset, unsigned width);
  void tell_ready(size_t window) const;
  void window_write(size_t window, uint32_t offset, unsigned width, uint32_t data);
  [[nodiscard]] uint16_t word_read(size_t window, uint32_t offset, uint16_t lanes);
  void word_write(size_t window, uint32_t offset, uint16_t word, uint16_t lanes);
};

}  // namespace sim

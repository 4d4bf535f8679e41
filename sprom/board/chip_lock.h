// chip_lock.h: one program at a time for each EEPROM.
//
// An EEPROM has a single address counter, which every read moves: two readers at once get each other's bytes. So who
// reads needs the chip for himself, as who writes does.
#pragma once

#include <stdint.h>
#include <string>
#include "platform/mfgd/uspace/utils/sprom/sprom.h"

namespace tool {

// A record lock on a file named after the chip's bus and address, /var/lock/sprom-i2c-1-52.lock. It ends with the
// process, however that ends. Of locks on the same chip the inner ones share the outermost.
//
// Everybody may put files into that directory. A lock is a plain file with one name that is root's or the caller's own,
// or that has the group of a bus which this group may use: only its members and root can give it to a file. The file
// itself may be opened by those who may open the bus.
class chip_lock_t {
 public:
  // Waits so many seconds if another process has the lock.
  chip_lock_t(const smb_dev_t &dev, uint32_t seconds);
  ~chip_lock_t();
  chip_lock_t(const chip_lock_t &) = delete;
  chip_lock_t &operator=(const chip_lock_t &) = delete;

  [[nodiscard]] bool is_held() const { return m_state == state_t::held; }
  // Another process has it; else there is no file to lock.
  [[nodiscard]] bool is_busy() const { return m_state == state_t::busy; }
  // Why it is not held, with the holder's process or the file.
  [[nodiscard]] const std::string &refusal() const { return m_refusal; }

 private:
  enum class state_t { none, busy, held };

  [[nodiscard]] bool is_shared() const;
  void take(const smb_dev_t &dev, uint32_t seconds);
  [[nodiscard]] bool wait(int fd, int64_t end);
  [[nodiscard]] bool is_in_place(int fd) const;

  std::string m_path;
  int m_fd = -1;
  state_t m_state = state_t::none;
  std::string m_refusal;
  const chip_lock_t *m_outer = nullptr;
};

}  // namespace tool

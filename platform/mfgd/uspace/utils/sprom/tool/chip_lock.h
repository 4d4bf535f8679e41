// chip_lock.h: one writer at a time for each EEPROM.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/tool/board.h"

namespace tool {

// A record lock on a file named after the chip's bus and address, /var/lock/sprom-i2c-1-52.lock. It ends with the
// process, however that ends.
class chip_lock_t {
 public:
  explicit chip_lock_t(const entry_t &entry);
  ~chip_lock_t();
  chip_lock_t(const chip_lock_t &) = delete;
  chip_lock_t &operator=(const chip_lock_t &) = delete;

  // "" if the lock is held; else why not: another program holds it, or there is no file to lock.
  [[nodiscard]] const std::string &refusal() const { return m_refusal; }
  [[nodiscard]] bool is_busy() const { return m_is_busy; }

 private:
  int m_fd;
  std::string m_refusal;
  bool m_is_busy = false;
};

}  // namespace tool

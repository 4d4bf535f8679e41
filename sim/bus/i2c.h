// i2c.h: numbered I2C buses with devices, as the Linux i2c-dev driver offers them.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "sim/base/options.h"
#include "sim/base/real.h"

namespace sim {

// A device on a bus, seen byte by byte. A transaction is start, bytes, perhaps start again, stop.
class i2c_device {
 public:
  virtual ~i2c_device() = default;

  // Addressed for reading or writing. False: it does not acknowledge.
  [[nodiscard]] virtual bool start(bool reading) = 0;
  // The master sends a byte. False: it does not acknowledge.
  [[nodiscard]] virtual bool write(uint8_t byte) = 0;
  // The master fetches a byte.
  [[nodiscard]] virtual uint8_t read() = 0;
  virtual void stop() = 0;
};

// A message of a transaction, as I2C_RDWR has it.
struct i2c_message {
  uint8_t addr;
  bool reading;
  std::span<uint8_t> bytes;
};

// One bus: it addresses the devices and injects the faults that are common to all.
class i2c_bus {
 public:
  i2c_bus(uint32_t number, const options &opts);

  // Programs that use the bus at the same time take turns, one transaction at a time, by a record lock on this file.
  // Without the file they do not take turns.
  void take_turns_by(file lock) { m_turns = std::move(lock); }

  [[nodiscard]] uint32_t number() const { return m_number; }
  void add(uint8_t addr, std::unique_ptr<i2c_device> device);
  [[nodiscard]] bool has(uint8_t addr) const;

  // Carries out one transaction. Returns 0 or an errno value: ENXIO for an address and EIO for a byte that is not
  // acknowledged, otherwise the errno of the fault.
  [[nodiscard]] int transfer(std::span<i2c_message> messages);

 private:
  struct slot {
    uint8_t addr;
    std::unique_ptr<i2c_device> device;
    std::string name;      // in the log
    bool started = false;  // in this transaction
  };

  slot *slot_of(uint8_t addr);
  int begin(slot *to, bool reading);
  int injected(slot *to);
  int carry(slot *to, i2c_message *message);
  void report(const slot *to, const i2c_message &message, size_t place, bool failed) const;

  uint32_t m_number;
  const options &m_opts;
  std::vector<slot> m_slots;
  file m_turns;
};

// An open bus device file: the address that I2C_SLAVE chose, and the ioctls.
class i2c_client {
 public:
  i2c_client(i2c_bus *bus, const fault *smbus_only) : m_bus(bus), m_smbus_only(smbus_only) {}

  // As ioctl(): a result of 0 or more, or -1 with errno set.
  int ioctl(unsigned long request, void *arg);

 private:
  int functions(void *arg) const;
  int rdwr(void *arg);
  int smbus(void *arg);

  i2c_bus *m_bus;
  const fault *m_smbus_only;  // null for an adapter that offers plain messages, too
  uint8_t m_addr = 0;
};

}  // namespace sim

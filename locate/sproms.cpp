// sproms.cpp: the EEPROM with the supervisor's and the backplane's SPROM, one transaction after the other.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "locate/parts.h"
#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_layout.h"
#include "post/dorvan/sprom_dorvan.h"

namespace locate {
namespace {

struct image_row {
  const char *name;
  const smb_dev_t &at;
  uint32_t length;  // bytes
};
constexpr std::array images{
    image_row{"supervisor's", dorvan_sup_dev, SPROM_SIZE_SUP},
    image_row{"backplane's", dorvan_bp_dev, SPROM_SIZE_BP},
};
constexpr unsigned bus_number = 1;  // of their path
constexpr int tries = 4;

// One SMBus transaction with the chip; both kinds of adapters have them. Returns 0 or the error.
class chip {
 public:
  chip(int bus, uint32_t address) : m_bus(bus), m_error(ioctl(bus, I2C_SLAVE_FORCE, address) < 0 ? errno : 0) {}

  int set_place(uint32_t offset) {
    i2c_smbus_data low{.byte = static_cast<uint8_t>(offset)};
    return transfer(I2C_SMBUS_WRITE, static_cast<uint8_t>(offset >> 8U), I2C_SMBUS_BYTE_DATA, &low);
  }
  int read_next() {
    i2c_smbus_data byte{};
    return transfer(I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE, &byte);
  }
  [[nodiscard]] uint64_t transactions() const { return m_count; }

 private:
  int transfer(uint8_t direction, uint8_t command, uint32_t size, i2c_smbus_data *data) {
    if (m_error != 0) return m_error;
    ++m_count;
    i2c_smbus_ioctl_data request{direction, command, size, data};
    return ioctl(m_bus, I2C_SMBUS, &request) < 0 ? errno : 0;
  }

  int m_bus;
  int m_error;
  uint64_t m_count = 0;
};

// Whether it is the chip that does not acknowledge, and not the bus that does nothing at all.
bool is_of_the_chip(int error) {
  return error == ENXIO || error == EREMOTEIO;
}

// Other addresses of such chips that answer, "0x50 0x53".
std::string other_chips(int bus, uint32_t own) {
  std::string found;
  for (uint32_t address = 0x50; address <= 0x57; ++address)
    if (address != own && chip(bus, address).read_next() == 0) found += (found.empty() ? "" : " ") + hex(address);
  return found;
}

struct failure {
  std::string what;  // which transaction
  int error;
  bool lasting;
};

// Sets the place, again if that fails. Returns the last error, 0 for none.
int set_place(chip *eeprom, uint32_t offset, const char *name, std::vector<failure> *failures) {
  int error = 0;
  for (int i = 0; i < tries; ++i) {
    error = eeprom->set_place(offset);
    if (error == 0) return 0;
    failures->push_back(
        {"address write of the " + std::string(name) + " image, offset " + hex(offset, 4), error, false});
  }
  failures->back().lasting = true;
  return error;
}

// Reads the image byte by byte.
void read_image(chip *eeprom, const image_row &image, std::vector<failure> *failures) {
  if (set_place(eeprom, image.at.base, image.name, failures) != 0) return;
  int failed_in_a_row = 0;
  for (uint32_t i = 0; i < image.length;) {
    const int error = eeprom->read_next();
    if (error == 0) {
      ++i;
      failed_in_a_row = 0;
      continue;
    }
    failures->push_back(
        {"read of byte " + hex(image.at.base + i, 4) + " of the " + image.name + " image", error, false});
    if (++failed_in_a_row == tries) failures->back().lasting = true;
    if (failed_in_a_row == tries || set_place(eeprom, image.at.base + i, image.name, failures) != 0) return;
  }
}

void report(const std::vector<failure> &failures, int bus, part_result *result) {
  const auto &first = failures.front();
  const bool lasting = failures.back().lasting;
  const auto address = dorvan_sup_dev.addr;
  const auto place = "bus=" + std::to_string(bus_number) + " addr=" + hex(address, 2);
  finding what{.evidence = {"first: " + first.what + ": " + std::strerror(first.error),
                            std::to_string(failures.size()) + " of " + std::to_string(result->accesses) +
                                " transactions failed"},
               .intermittent = !lasting,
               .places = {"eeprom"}};
  if (!lasting) {
    what.sentence = "The EEPROM at " + hex(address) + " sometimes fails.";
    what.candidates = {"i2c-fail " + place + " errno=" + std::to_string(first.error)};
    what.next = "check pull-ups, contacts and the levels of SCL and SDA";
  } else if (is_of_the_chip(first.error)) {
    const auto others = other_chips(bus, address);
    what.sentence = "The EEPROM at " + hex(address) + " does not acknowledge.";
    what.evidence.push_back(others.empty() ? "no chip of its kind answers at another address"
                                           : "chips answer at " + others);
    what.candidates = {"i2c-absent " + place};
    what.next = "check whether it is fitted, its supply and address pins";
  } else {
    what.sentence = "The bus with the EEPROM does not answer.";
    what.candidates = {"i2c-fail " + place + " times=0 errno=" + std::to_string(first.error)};
    what.next = "check whether SCL or SDA is held low, and by which chip";
    what.places = {"i2c-" + std::to_string(bus_number)};
  }
  add_finding(std::move(what), result);
}

void check_adapter(int bus, part_result *result) {
  unsigned long functions = 0;
  if (ioctl(bus, I2C_FUNCS, &functions) < 0 || (functions & I2C_FUNC_I2C) != 0) return;
  add_finding({.sentence = "The adapter of the bus offers only SMBus transfers.",
               .evidence = {"functions " + hex(static_cast<uint32_t>(functions), 8)},
               .candidates = {"i2c-smbus-only bus=" + std::to_string(bus_number)},
               .next = "load the adapter's own driver"},
              result);
}

}  // namespace

part_result probe_sproms(const settings & /*how*/) {
  part_result result;
  const char *const path = dorvan_sup_dev.path;
  const unique_fd bus(open(path, O_RDWR | O_CLOEXEC));
  if (!bus) {
    add_obstacle({.sentence = std::string(path) + " cannot be opened: " + std::strerror(errno) + ".",
                  .candidates = {"i2c-bus-absent bus=" + std::to_string(bus_number)},
                  .next = "load the drivers of the adapter and of i2c-dev, and run as root",
                  .places = {"i2c-" + std::to_string(bus_number)}},
                 &result);
    return result;
  }
  check_adapter(bus.get(), &result);
  chip eeprom(bus.get(), dorvan_sup_dev.addr);
  std::vector<failure> failures;
  for (const auto &image : images)
    if (failures.empty() || !failures.back().lasting) read_image(&eeprom, image, &failures);
  result.accesses = eeprom.transactions();
  result.looked_at = {"both images in the EEPROM, byte by byte"};
  result.not_looked_at = {"what they say (sprom verify)"};
  if (!failures.empty()) report(failures, bus.get(), &result);
  return result;
}

}  // namespace locate

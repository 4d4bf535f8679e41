// sproms.cpp: the EEPROM with the supervisor's and the backplane's SPROM, one transaction after the other.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>

#include <algorithm>
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
  [[nodiscard]] uint64_t last_good() const { return m_last_good; }  // its number, from 1

 private:
  int transfer(uint8_t direction, uint8_t command, uint32_t size, i2c_smbus_data *data) {
    if (m_error != 0) return m_error;
    ++m_count;
    i2c_smbus_ioctl_data request{direction, command, size, data};
    if (ioctl(m_bus, I2C_SMBUS, &request) < 0) return errno;
    m_last_good = m_count;
    return 0;
  }

  int m_bus;
  int m_error;
  uint64_t m_count = 0;
  uint64_t m_last_good = 0;
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
  uint64_t number;  // of the transaction, from 1
};

// The reading of the images, and what failed in it.
class reading {
 public:
  explicit reading(int bus) : m_eeprom(bus, dorvan_sup_dev.addr) {}

  [[nodiscard]] const chip &eeprom() const { return m_eeprom; }
  [[nodiscard]] const std::vector<failure> &failures() const { return m_failures; }

  // Reads an image byte by byte. Returns whether it came to the end.
  [[nodiscard]] bool read(const image_row &image) {
    const auto of_image = std::string(" of the ") + image.name + " image";
    uint32_t at = image.at.base;
    const auto set_place = [&] {
      return try_often([&] { return m_eeprom.set_place(at); }, "address write" + of_image + ", offset " + hex(at, 4));
    };
    if (!set_place()) return false;
    for (int failed_in_a_row = 0; at < image.at.base + image.length;) {
      if (try_once([&] { return m_eeprom.read_next(); }, "read of byte " + hex(at, 4) + of_image)) {
        ++at;
        failed_in_a_row = 0;
      } else if (++failed_in_a_row == tries || !set_place()) {
        return false;
      }
    }
    return true;
  }

  // Whether it does not answer any more, and not by chance only.
  [[nodiscard]] bool is_silent() {
    constexpr int more = 16;
    for (int i = 0; i < more; ++i)
      if (try_once([&] { return m_eeprom.read_next(); }, "read of a byte")) return false;
    return true;
  }

 private:
  template <class Do>
  [[nodiscard]] bool try_once(Do transaction, const std::string &what) {
    const int error = transaction();
    if (error != 0) m_failures.push_back({what, error, m_eeprom.transactions()});
    return error == 0;
  }
  template <class Do>
  [[nodiscard]] bool try_often(Do transaction, const std::string &what) {
    for (int i = 0; i < tries; ++i)
      if (try_once(transaction, what)) return true;
    return false;
  }

  chip m_eeprom;
  std::vector<failure> m_failures;
};

// What is wrong with an EEPROM that does not answer any more; with the last error, as earlier ones may have been
// others.
void add_silence(const reading &of, int bus, finding *what) {
  const auto &failures = of.failures();
  const auto last_good = of.eeprom().last_good();
  const int error = failures.back().error;
  const auto address = dorvan_sup_dev.addr;
  const auto place = "bus=" + std::to_string(bus_number) + " addr=" + hex(address, 2);
  const bool of_the_chip = is_of_the_chip(error);
  what->next = of_the_chip ? "check whether it is fitted, its supply and address pins"
                           : "check whether SCL or SDA is held low, and by which chip";
  if (last_good != 0) {
    const auto stop = std::ranges::find(failures, last_good + 1, &failure::number);
    what->sentence = "The EEPROM at " + hex(address) + " stopped answering at the " + stop->what + ".";
    what->candidates = {"i2c-fail " + place + " nth=" + std::to_string(stop->number) +
                        " times=0 errno=" + std::to_string(error)};
  } else if (of_the_chip) {
    const auto others = other_chips(bus, address);
    what->sentence = "The EEPROM at " + hex(address) + " does not acknowledge.";
    what->evidence.push_back(others.empty() ? "no chip of its kind answers at another address"
                                            : "chips answer at " + others);
    what->candidates = {"i2c-absent " + place};
  } else {
    what->sentence = "The bus with the EEPROM does not answer.";
    what->candidates = {"i2c-fail " + place + " times=0 errno=" + std::to_string(error)};
    what->places = {"i2c-" + std::to_string(bus_number)};
  }
}

void report(const reading &of, bool silent, int bus, part_result *result) {
  const auto &first = of.failures().front();
  finding what{.evidence = {"first: " + first.what + ": " + std::strerror(first.error),
                            std::to_string(of.failures().size()) + " of " + std::to_string(of.eeprom().transactions()) +
                                " transactions failed"},
               .intermittent = !silent,
               .places = {"eeprom"}};
  if (silent) {
    add_silence(of, bus, &what);
  } else {
    what.sentence = "The EEPROM at " + hex(dorvan_sup_dev.addr) + " sometimes fails.";
    what.candidates = {"i2c-fail bus=" + std::to_string(bus_number) + " addr=" + hex(dorvan_sup_dev.addr, 2) +
                       " errno=" + std::to_string(first.error)};
    what.next = "check pull-ups, contacts and the levels of SCL and SDA";
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
  reading of(bus.get());
  bool silent = false;
  for (const auto &image : images)
    silent = silent || (!of.read(image) && of.is_silent());
  result.accesses = of.eeprom().transactions();
  result.looked_at = {"both images in the EEPROM, byte by byte"};
  result.not_looked_at = {"what they say (sprom verify)"};
  if (!of.failures().empty()) report(of, silent, bus.get(), &result);
  return result;
}

}  // namespace locate

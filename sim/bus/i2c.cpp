#include "sim/bus/i2c.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "sim/base/real.h"
#include "sim/bus/trace.h"

namespace sim {

namespace {

constexpr unsigned long smbus_functions = I2C_FUNC_SMBUS_QUICK | I2C_FUNC_SMBUS_BYTE | I2C_FUNC_SMBUS_BYTE_DATA |
                                          I2C_FUNC_SMBUS_WORD_DATA | I2C_FUNC_SMBUS_I2C_BLOCK;

// A program's turn on the bus; it ends with the program, however that ends.
class turn {
 public:
  explicit turn(const file &lock) : m_lock(lock) { set(F_WRLCK, F_SETLKW); }
  ~turn() { set(F_UNLCK, F_SETLK); }
  turn(const turn &) = delete;
  turn &operator=(const turn &) = delete;

 private:
  void set(short type, int command) const {
    const keep_errno kept;
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    while (sys::fcntl(m_lock.fd(), command, reinterpret_cast<intptr_t>(&lock)) != 0 && errno == EINTR) {
    }
  }
  const file &m_lock;
};

// An SMBus transfer is a write of the command and its data, or a write of the command and a read.
struct smbus_transfer {
  std::array<uint8_t, 1 + I2C_SMBUS_BLOCK_MAX> out{};
  size_t out_length = 1;
  std::array<uint8_t, I2C_SMBUS_BLOCK_MAX> in{};
  size_t in_length = 0;
};

// Returns 0, or the errno value with which the kernel refuses the transfer.
int smbus_plan(const i2c_smbus_ioctl_data &args, smbus_transfer *t) {
  const bool reading = args.read_write == I2C_SMBUS_READ;
  const bool bare = args.size == I2C_SMBUS_QUICK || (args.size == I2C_SMBUS_BYTE && !reading);
  if (!reading && args.read_write != I2C_SMBUS_WRITE) return EINVAL;
  if (!bare && args.data == nullptr) return EINVAL;
  t->out[0] = args.command;
  size_t length = 0;  // of the data
  switch (args.size) {
    case I2C_SMBUS_QUICK:
      t->out_length = 0;
      return 0;
    case I2C_SMBUS_BYTE:
      t->out_length = reading ? 0 : 1;
      t->in_length = reading ? 1 : 0;
      return 0;
    case I2C_SMBUS_BYTE_DATA:
      length = 1;
      t->out[1] = args.data->byte;
      break;
    case I2C_SMBUS_WORD_DATA:
      length = 2;
      t->out[1] = static_cast<uint8_t>(args.data->word);
      t->out[2] = static_cast<uint8_t>(args.data->word >> 8);
      break;
    case I2C_SMBUS_I2C_BLOCK_DATA:
      length = args.data->block[0];
      if (length == 0 || length > I2C_SMBUS_BLOCK_MAX) return EINVAL;
      std::copy_n(&args.data->block[1], length, &t->out[1]);
      break;
    default:
      return EOPNOTSUPP;
  }
  (reading ? t->in_length : t->out_length) += length;
  return 0;
}

// Gives the caller what was read.
void smbus_store(const i2c_smbus_ioctl_data &args, const smbus_transfer &t) {
  if (t.in_length == 0) return;
  if (args.size == I2C_SMBUS_WORD_DATA)
    args.data->word = static_cast<uint16_t>(t.in[0] | t.in[1] << 8);
  else if (args.size == I2C_SMBUS_I2C_BLOCK_DATA)
    std::copy_n(t.in.begin(), t.in_length, &args.data->block[1]);
  else
    args.data->byte = t.in[0];
}

// As the bus log shows it.
std::string device_name(uint32_t bus, uint8_t addr) {
  char name[32];
  (void)std::snprintf(name, sizeof(name), "i2c-%u:%02x", bus, addr);
  return name;
}

}  // namespace

i2c_bus::i2c_bus(uint32_t number, const options &opts) : m_number(number), m_opts(opts) {}

void i2c_bus::add(uint8_t addr, std::unique_ptr<i2c_device> device) {
  m_slots.push_back({addr, std::move(device), device_name(m_number, addr)});
}

bool i2c_bus::has(uint8_t addr) const {
  return std::ranges::any_of(m_slots, [&](const slot &s) { return s.addr == addr; });
}

i2c_bus::slot *i2c_bus::slot_of(uint8_t addr) {
  const auto found = std::ranges::find_if(m_slots, [&](const slot &s) { return s.addr == addr; });
  return found == m_slots.end() ? nullptr : &*found;
}

// The error that a fault makes of this transaction with the device, 0 for none.
int i2c_bus::injected(slot *to) {
  int error = 0;
  for (const auto &f : m_opts.faults) {
    const bool absent = f.id == fault_id::i2c_absent;
    if ((!absent && f.id != fault_id::i2c_fail) || !f.is_at(m_number, to->addr)) continue;
    // Each fault counts the device's transactions, independently of the others.
    if (f.strikes() && error == 0) error = absent ? ENXIO : f.error();
  }
  return error;
}

int i2c_bus::carry(slot *to, i2c_message *message) {
  if (message->reading) {
    for (auto &byte : message->bytes)
      byte = to->device->read();
    return 0;
  }
  for (const auto byte : message->bytes)
    if (!to->device->write(byte)) return EIO;
  return 0;
}

// A device that is busy with itself is not reached: that is no transaction with it.
int i2c_bus::begin(slot *to, bool reading) {
  if (to == nullptr || !to->device->start(reading)) return ENXIO;
  if (to->started) return 0;
  to->started = true;
  return injected(to);
}

void i2c_bus::report(const slot *to, const i2c_message &message, size_t place, bool failed) const {
  constexpr std::array kinds{'w', 'r', 'W', 'R'};
  const size_t kind = (message.reading ? 1u : 0u) + (failed ? 2u : 0u);
  const auto seen = message.reading && failed ? std::span<uint8_t>{} : message.bytes;
  const auto nobody = to == nullptr ? device_name(m_number, message.addr) : "";
  bus_passed({to == nullptr ? nobody.c_str() : to->name.c_str(), kinds[kind], static_cast<unsigned>(seen.size() * 8),
              place, 0, seen});
}

int i2c_bus::transfer(std::span<i2c_message> messages) {
  const turn own(m_turns);
  int error = 0;
  for (size_t i = 0; i < messages.size() && error == 0; ++i) {
    auto *const to = slot_of(messages[i].addr);
    error = begin(to, messages[i].reading);
    if (error == 0) error = carry(to, &messages[i]);
    if (bus_is_watched()) report(to, messages[i], i, error != 0);
  }
  for (auto &s : m_slots)
    if (std::exchange(s.started, false)) s.device->stop();
  if (!messages.empty()) i2c_stop_passed(m_number);
  return error;
}

int i2c_client::ioctl(unsigned long request, void *arg) {
  const auto number = reinterpret_cast<uintptr_t>(arg);
  switch (request) {
    case I2C_SLAVE:
    case I2C_SLAVE_FORCE:
      if (number > 0x7F) return fail(EINVAL);
      m_addr = static_cast<uint8_t>(number);
      return 0;
    case I2C_FUNCS:
      return functions(arg);
    case I2C_RDWR:
      return rdwr(arg);
    case I2C_SMBUS:
      return smbus(arg);
    case I2C_TENBIT:
    case I2C_PEC:
      return number == 0 ? 0 : fail(EINVAL);
    case I2C_RETRIES:
    case I2C_TIMEOUT:
      return 0;
    default:
      return fail(ENOTTY);
  }
}

int i2c_client::functions(void *arg) const {
  if (arg == nullptr) return fail(EFAULT);
  const bool smbus_only = m_smbus_only != nullptr && m_smbus_only->strikes();
  *static_cast<unsigned long *>(arg) = smbus_functions | (smbus_only ? 0ul : I2C_FUNC_I2C);
  return 0;
}

int i2c_client::rdwr(void *arg) {
  if (m_smbus_only != nullptr && m_smbus_only->strikes()) return fail(EOPNOTSUPP);
  if (arg == nullptr) return fail(EFAULT);
  const auto &data = *static_cast<const i2c_rdwr_ioctl_data *>(arg);
  if (data.msgs == nullptr || data.nmsgs == 0 || data.nmsgs > I2C_RDWR_IOCTL_MAX_MSGS) return fail(EINVAL);
  std::vector<i2c_message> messages;
  for (const auto &msg : std::span(data.msgs, data.nmsgs)) {
    if (msg.len > 8192 || msg.addr > 0x7F || (msg.flags & ~I2C_M_RD) != 0) return fail(EINVAL);
    if (msg.len != 0 && msg.buf == nullptr) return fail(EFAULT);
    messages.push_back({static_cast<uint8_t>(msg.addr), (msg.flags & I2C_M_RD) != 0, {msg.buf, msg.len}});
  }
  if (const int error = m_bus->transfer(messages)) return fail(error);
  return static_cast<int>(data.nmsgs);
}

int i2c_client::smbus(void *arg) {
  if (arg == nullptr) return fail(EFAULT);
  const auto &args = *static_cast<const i2c_smbus_ioctl_data *>(arg);
  smbus_transfer transfer;
  if (const int error = smbus_plan(args, &transfer)) return fail(error);
  const bool reading = args.read_write == I2C_SMBUS_READ;
  std::vector<i2c_message> messages;
  if (!reading || transfer.out_length != 0)
    messages.push_back({m_addr, false, std::span(transfer.out).first(transfer.out_length)});
  if (reading) messages.push_back({m_addr, true, std::span(transfer.in).first(transfer.in_length)});
  if (const int error = m_bus->transfer(messages)) return fail(error);
  smbus_store(args, transfer);
  return 0;
}

}  // namespace sim

// The model of the AT24C512 beside QEMU's at24c-eeprom, byte by byte on a bus whose two lines are moved one by one.
// What both have is driven at random; what they do otherwise stands in the list `differences` and must be seen.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "sim/board/random.h"
#include "sim/devices/eeprom.h"
#include "tools/peers/qemu.h"

namespace {

constexpr uint8_t chip = 0x50;
constexpr uint8_t nobody = 0x51;
constexpr size_t page = sim::at24c512.page;

// Whoever serves transactions, start by start and byte by byte.
class bus {
 public:
  virtual ~bus() = default;
  virtual bool start(uint8_t address, bool reading) = 0;  // both return whether it was acknowledged
  virtual bool put(uint8_t byte) = 0;
  virtual uint8_t get(bool last) = 0;
  virtual void stop() = 0;
};

class our_bus final : public bus {
 public:
  explicit our_bus(sim::i2c_device *device) : m_device(device) {}
  bool start(uint8_t address, bool reading) override { return address == chip && m_device->start(reading); }
  bool put(uint8_t byte) override { return m_device->write(byte); }
  uint8_t get(bool /*last*/) override { return m_device->read(); }
  void stop() override { m_device->stop(); }

 private:
  sim::i2c_device *m_device;
};

// The lines of the board versatilepb: writing sets those named at one register, clears them at the next.
class peers_bus final : public bus {
 public:
  bool start(uint8_t address, bool reading) override {
    move(sda, true);
    move(scl, true);
    move(sda, false);
    move(scl, false);
    return put(static_cast<uint8_t>(address << 1U | (reading ? 1U : 0U)));
  }
  bool put(uint8_t byte) override {
    for (unsigned bit = 8; bit-- != 0;) {
      move(sda, (byte >> bit & 1U) != 0);
      (void)clock(false);
    }
    move(sda, true);
    return !clock(true);
  }
  uint8_t get(bool last) override {
    move(sda, true);
    unsigned byte = 0;
    for (int bit = 0; bit < 8; ++bit)
      byte = byte << 1U | (clock(true) ? 1U : 0U);
    move(sda, last);
    (void)clock(false);
    return static_cast<uint8_t>(byte);
  }
  void stop() override {
    move(sda, false);
    move(scl, true);
    move(sda, true);
  }

 private:
  static constexpr uint32_t lines_set = 0x10002000;
  static constexpr uint32_t lines_clear = 0x10002004;
  static constexpr uint32_t scl = 1;
  static constexpr uint32_t sda = 2;

  void move(uint32_t which, bool up) { m_machine.write('l', up ? lines_set : lines_clear, which); }
  // Returns the level of the data line in between, if asked for.
  bool clock(bool reading) {
    move(scl, true);
    const bool level = reading && (m_machine.read('l', lines_set) & sda) != 0;
    move(scl, false);
    return level;
  }

  qemu m_machine{
      "qemu-system-arm",
      {"-M", "versatilepb", "-device", "at24c-eeprom,address=0x50,rom-size=" + std::to_string(sim::at24c512.size)}};
};

// clang-format off
// "SHEET" is the data sheet of the AT24C512 (Atmel).
enum difference { page_wrap, write_cycle, no_stop, half_address, count };
struct reason { const char *what; const char *why; uint64_t seen; };
reason differences[count]{
    {"data beyond the end of a page: at its start here, in the next page there",
     "the counter rolls over within the page: SHEET 'Page Write'", 0},
    {"the chip after a write: answers to the third start here, to the first there",
     "inputs are off during the write cycle: SHEET 'Byte Write', 'Acknowledge Polling'", 0},
    {"data that a start follows and no stop: lost here, written there", "the stop begins the write cycle: SHEET 'Byte Write'", 0},
    {"a read behind the first of two address bytes: the old counter here, all ones there",
     "the address is two bytes: SHEET 'Random Read'", 0},
};
// clang-format on

class comparison {
 public:
  comparison(sim::i2c_device *device, uint64_t seed) : m_random(seed), m_ours(device) {}

  void run(uint64_t transactions);
  [[nodiscard]] int report() const;

 private:
  uint32_t number(uint32_t below) { return static_cast<uint32_t>(sim::random_next(&m_random) >> 32U) % below; }
  // Few pages, the last one among them.
  size_t anywhere() { return sim::at24c512.size - (1 + number(8)) * page + number(page); }

  void expect(bool same, const char *what, size_t at, unsigned ours, unsigned peers);
  void start(uint8_t address, bool reading);
  void put(uint8_t byte);
  void stop();
  void address(size_t at);
  void get(size_t at, size_t length);

  void write(size_t at, size_t length);
  void read(size_t at, size_t length);
  void make_same(size_t at);
  void write_over_the_end();
  void write_without_stop();
  void read_behind_half_an_address();

  uint64_t m_random;
  our_bus m_ours;
  peers_bus m_peer;
  uint64_t m_transactions = 0, m_read = 0, m_written = 0, m_bad = 0;
};

void comparison::expect(bool same, const char *what, size_t at, unsigned ours, unsigned peers) {
  if (same || m_bad++ >= 20) return;
  std::printf("transaction %llu: %s at %zx: %02x here, %02x there\n", static_cast<unsigned long long>(m_transactions),
              what, at, ours, peers);
}

void comparison::start(uint8_t address, bool reading) {
  bool ours = m_ours.start(address, reading);
  const bool peers = m_peer.start(address, reading);
  if (!ours && peers) {
    // A write cycle of the usual length.
    ours = !m_ours.start(address, reading) && m_ours.start(address, reading);
    ++differences[write_cycle].seen;
  }
  expect(ours == peers, "acknowledge of the address", address, ours, peers);
}

void comparison::put(uint8_t byte) {
  const bool ours = m_ours.put(byte);
  const bool peers = m_peer.put(byte);
  expect(ours && peers, "acknowledge of a byte", byte, ours, peers);
}

void comparison::stop() {
  m_ours.stop();
  m_peer.stop();
  ++m_transactions;
}

void comparison::address(size_t at) {
  start(chip, false);
  put(static_cast<uint8_t>(at >> 8U));
  put(static_cast<uint8_t>(at));
}

void comparison::get(size_t at, size_t length) {
  start(chip, true);
  for (size_t i = 1; i <= length; ++i) {
    const uint8_t ours = m_ours.get(i == length);
    const uint8_t peers = m_peer.get(i == length);
    expect(ours == peers, "data", at + i - 1, ours, peers);
    ++m_read;
  }
  stop();
}

void comparison::write(size_t at, size_t length) {
  address(at);
  for (size_t i = 0; i < length; i++, m_written++)
    put(static_cast<uint8_t>(number(0x100)));
  stop();
}

// From any place; over the end of the memory it goes on at its start. Sometimes another read goes on there.
void comparison::read(size_t at, size_t length) {
  address(at);
  get(at, length);
  if (number(2) == 0) get(at + length, 1 + number(4));
}

void comparison::make_same(size_t at) {
  write(at - at % page, page);
}

void comparison::write_over_the_end() {
  const size_t start_of_page = sim::at24c512.size - (2 + number(6)) * page;
  const size_t at = start_of_page + page - 2;
  make_same(start_of_page);
  make_same(start_of_page + page);
  address(at);
  for (const uint8_t byte : std::initializer_list<uint8_t>{0x11, 0x22, 0x33})
    put(byte);
  stop();
  // What was written last: here at the start of the page, there of the next.
  for (const size_t where : {start_of_page, start_of_page + page}) {
    address(where);
    start(chip, true);
    const uint8_t ours = m_ours.get(true);
    const uint8_t peers = m_peer.get(true);
    stop();
    const uint8_t written = where == start_of_page ? ours : peers;
    expect(written == 0x33, "data over the end of a page", where, ours, peers);
  }
  ++differences[page_wrap].seen;
  make_same(start_of_page);
  make_same(start_of_page + page);
}

void comparison::write_without_stop() {
  const size_t at = anywhere();
  make_same(at);
  address(at);
  start(chip, true);
  const uint8_t before = m_ours.get(true);
  (void)m_peer.get(true);
  stop();
  address(at);
  put(static_cast<uint8_t>(~before));
  address(at);
  start(chip, true);
  const uint8_t ours = m_ours.get(true);
  const uint8_t peers = m_peer.get(true);
  stop();
  expect(ours == before && peers == static_cast<uint8_t>(~before), "data without a stop", at, ours, peers);
  ++differences[no_stop].seen;
  make_same(at);
}

void comparison::read_behind_half_an_address() {
  make_same(sim::at24c512.size - page);
  write(sim::at24c512.size - page, 1);  // the counter points behind it
  start(chip, false);
  put(0x12);
  start(chip, true);
  const uint8_t ours = m_ours.get(true);
  const uint8_t peers = m_peer.get(true);
  stop();
  address(sim::at24c512.size - page + 1);
  start(chip, true);
  const uint8_t next = m_ours.get(true);
  (void)m_peer.get(true);
  stop();
  expect(ours == next && peers == 0xFF, "data behind half an address", 0, ours, peers);
  ++differences[half_address].seen;
}

void comparison::run(uint64_t transactions) {
  write_over_the_end();
  write_without_stop();
  read_behind_half_an_address();
  while (m_transactions < transactions && m_bad == 0) {
    const size_t at = anywhere();
    const uint32_t choice = number(100);
    if (choice < 45) {
      write(at, 1 + number(std::min<uint32_t>(8, static_cast<uint32_t>(page - at % page))));
      // The counter behind the end of a page: a listed difference.
      read(anywhere(), 1 + number(8));
    } else if (choice < 90) {
      read(at, 1 + number(16));
    } else if (choice < 95) {
      start(nobody, number(2) == 0);
      stop();
    } else if (choice < 97) {
      write_over_the_end();
    } else {
      write_without_stop();
    }
  }
  for (size_t at = sim::at24c512.size - 8 * page; at < sim::at24c512.size; at += page)
    read(at, page);
}

int comparison::report() const {
  const auto of = [](uint64_t n) { return static_cast<unsigned long long>(n); };
  std::printf("eeprom: %llu transactions, %llu bytes read, the same on both, %llu written\n", of(m_transactions),
              of(m_read), of(m_written));
  bool all_seen = true;
  for (const reason &d : differences) {
    std::printf("  listed: %s (seen %llu times)\n    %s\n", d.what, of(d.seen), d.why);
    all_seen = all_seen && d.seen != 0;
  }
  if (!all_seen) std::printf("eeprom: a difference that is listed was not seen\n");
  std::printf("eeprom: %llu differences that are not listed\n", of(m_bad));
  return m_bad == 0 && all_seen ? 0 : 1;
}

}  // namespace

// peer_eeprom TRANSACTIONS SEED
int main(int argc, char **argv) {
  if (argc != 3) give_up("usage: peer_eeprom TRANSACTIONS SEED");
  std::string directory = std::filesystem::temp_directory_path() / "eeprom-XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) give_up(directory + ": cannot be made");
  sim::eeprom ours({});
  std::string error;
  const bool opened = ours.open(directory + "/contents", std::vector<uint8_t>(sim::at24c512.size), &error);
  std::filesystem::remove_all(directory);
  if (!opened) give_up(error);
  comparison both(&ours, std::strtoull(argv[2], nullptr, 0));
  both.run(std::strtoull(argv[1], nullptr, 0));
  return both.report();
}

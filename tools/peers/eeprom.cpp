// The model of the AT24C512 beside QEMU's at24c-eeprom, byte by byte on a bus whose two lines are moved one by one.
// What both have is driven at random; their differences are in the list `differences` and must be seen.
#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "sim/devices/eeprom.h"
#include "tools/peers/compare.h"

namespace {

constexpr uint8_t chip = 0x50;
constexpr uint8_t nobody = 0x51;
constexpr size_t page = sim::at24c512.page;

// The lines of the board versatilepb: writing sets those named at one register, clears them at the next. Bytes that are
// sent return whether they were acknowledged.
class peers_bus {
 public:
  bool start(uint8_t address, bool reading) {
    move(sda, true);
    move(scl, true);
    move(sda, false);
    move(scl, false);
    return put(static_cast<uint8_t>(unsigned{address} << 1U | (reading ? 1U : 0U)));
  }
  bool put(uint8_t byte) {
    for (unsigned bit = 8; bit-- != 0;) {
      move(sda, (byte >> bit & 1U) != 0);
      (void)clock(false);
    }
    move(sda, true);
    return !clock(true);
  }
  uint8_t get(bool last) {
    move(sda, true);
    unsigned byte = 0;
    for (int bit = 0; bit < 8; ++bit)
      byte = byte << 1U | (clock(true) ? 1U : 0U);
    move(sda, last);
    (void)clock(false);
    return static_cast<uint8_t>(byte);
  }
  void stop() {
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
listed differences[count]{
    {"data beyond the end of a page: at its start here, in the next page there",
     "the counter rolls over within the page: SHEET 'Page Write'"},
    {"the chip after a write: answers to the third start here, to the first there",
     "inputs are off during the write cycle: SHEET 'Byte Write', 'Acknowledge Polling'"},
    {"data that a start follows and no stop: lost here, written there", "the stop begins the write cycle: SHEET 'Byte Write'"},
    {"a read behind the first of two address bytes: the old counter here, all ones there",
     "the address is two bytes: SHEET 'Random Read'"},
};
// clang-format on

// What was read.
struct answer {
  uint8_t ours;
  uint8_t peers;
};

class comparison {
 public:
  comparison(sim::i2c_device *device, uint64_t seed) : m_random(seed), m_device(device) {}

  void run(uint64_t transactions) {
    write_over_the_end();
    write_without_stop();
    read_behind_half_an_address();
    while (m_transactions < transactions && m_found.none()) {
      const size_t at = anywhere();
      const uint32_t choice = m_random.below(100);
      if (choice < 45) {
        write(at, 1 + m_random.below(std::min<uint32_t>(8, static_cast<uint32_t>(page - at % page))));
        // The counter after the end of a page: a listed difference.
        read(anywhere(), 1 + m_random.below(8));
      } else if (choice < 90) {
        read(at, 1 + m_random.below(16));
      } else if (choice < 95) {
        start(nobody, m_random.one_in(2));
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

  [[nodiscard]] int report() const {
    std::printf("eeprom: %" PRIu64 " transactions, %" PRIu64 " bytes read, the same on both, %" PRIu64 " written\n",
                m_transactions, m_read, m_written);
    return m_found.report("eeprom");
  }

 private:
  // Few pages, the last one among them.
  size_t anywhere() { return sim::at24c512.size - (1 + m_random.below(8)) * page + m_random.below(page); }

  void expect(bool same, const char *what, size_t at, unsigned ours, unsigned peers) {
    if (!same)
      m_found.differ("transaction %" PRIu64 ": %s at %zx: %02x here, %02x there\n", m_transactions, what, at, ours,
                     peers);
  }

  // --- On both ---

  bool start_ours(uint8_t address, bool reading) { return address == chip && m_device->start(reading); }
  void start(uint8_t address, bool reading) {
    bool ours = start_ours(address, reading);
    const bool peers = m_peer.start(address, reading);
    if (!ours && peers) {
      // A write cycle of the usual length.
      ours = !start_ours(address, reading) && start_ours(address, reading);
      m_found.see(write_cycle);
    }
    expect(ours == peers, "acknowledge of the address", address, ours, peers);
  }

  void put(uint8_t byte) {
    const bool ours = m_device->write(byte);
    const bool peers = m_peer.put(byte);
    expect(ours && peers, "acknowledge of a byte", byte, ours, peers);
  }

  answer get(bool last) { return {m_device->read(), m_peer.get(last)}; }

  void stop() {
    m_device->stop();
    m_peer.stop();
    ++m_transactions;
  }

  void address(size_t at) {
    start(chip, false);
    put(static_cast<uint8_t>(at >> 8U));
    put(static_cast<uint8_t>(at));
  }

  // One byte, where the counters are.
  answer read_next() {
    start(chip, true);
    const answer r = get(true);
    stop();
    return r;
  }
  answer read_at(size_t at) {
    address(at);
    return read_next();
  }

  void compare(size_t at, size_t length) {
    start(chip, true);
    for (size_t i = 1; i <= length; ++i) {
      const answer r = get(i == length);
      expect(r.ours == r.peers, "data", at + i - 1, r.ours, r.peers);
      ++m_read;
    }
    stop();
  }

  // From any place; over the end of the memory it goes on at its start. Sometimes another read goes on there.
  void read(size_t at, size_t length) {
    address(at);
    compare(at, length);
    if (m_random.one_in(2)) compare(at + length, 1 + m_random.below(4));
  }

  void write(size_t at, size_t length) {
    address(at);
    for (size_t i = 0; i < length; i++, m_written++)
      put(m_random.byte());
    stop();
  }
  void make_same(size_t at) { write(at - at % page, page); }

  // --- The differences ---

  void write_over_the_end() {
    const size_t first = sim::at24c512.size - (2 + m_random.below(6)) * page;
    make_same(first);
    make_same(first + page);
    address(first + page - 2);
    put(0x11);
    put(0x22);
    put(0x33);
    stop();
    // What was written last: here at the start of the page, there of the next.
    const unsigned here = read_at(first).ours;
    const unsigned there = read_at(first + page).peers;
    expect(here == 0x33 && there == 0x33, "data over the end of a page", first, here, there);
    m_found.see(page_wrap);
    make_same(first);
    make_same(first + page);
  }

  void write_without_stop() {
    const size_t at = anywhere();
    make_same(at);
    const uint8_t before = read_at(at).ours;
    const auto other = static_cast<uint8_t>(~before);
    address(at);
    put(other);
    const answer r = read_at(at);
    expect(r.ours == before && r.peers == other, "data without a stop", at, r.ours, r.peers);
    m_found.see(no_stop);
    make_same(at);
  }

  void read_behind_half_an_address() {
    constexpr size_t last_page = sim::at24c512.size - page;
    make_same(last_page);
    write(last_page, 1);  // the counter points after it
    start(chip, false);
    put(0x12);
    const answer r = read_next();
    const unsigned next = read_at(last_page + 1).ours;
    expect(r.ours == next && r.peers == 0xFF, "data behind half an address", 0, r.ours, r.peers);
    m_found.see(half_address);
  }

  random_numbers m_random;
  findings m_found{differences};
  sim::i2c_device *m_device;
  peers_bus m_peer;
  uint64_t m_transactions = 0, m_read = 0, m_written = 0;
};

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

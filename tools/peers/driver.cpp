// The flash driver on QEMU's CFI flash, and on the model: it must do the same on both.
//
// QEMU's chip has no write buffer, so on their way to it the cycles of a buffer's program become one program for each
// word (Spansion S29GL-N data sheet, "Word Program Command Sequence"). Of each sector the half is used that both have.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "models/nor_flash.h"
#include "platform/mfgd/cmn_lib/diag_util/spin.h"
#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_acc.h"
#include "platform/mfgd/cmn_lib/hw_acc/mmap/mmap_pci_velto_or.h"
#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"
#include "tools/peers/compare.h"

namespace {

// What the driver's bus leads to.
class chip {
 public:
  virtual ~chip() = default;
  virtual uint16_t read(uint32_t offset) = 0;
  virtual void write(uint32_t offset, uint16_t data) = 0;
};

chip *fitted = nullptr;

class our_chip final : public chip {
 public:
  uint16_t read(uint32_t offset) override { return m_model.read(offset); }
  void write(uint32_t offset, uint16_t data) override { m_model.write(offset, data); }

 private:
  std::vector<uint8_t> m_contents = std::vector<uint8_t>(models::flash_bytes, 0xFF);
  models::nor_flash m_model{models::memory(m_contents)};
};

constexpr uint32_t peers_sector_bytes = 0x10000;
constexpr uint32_t peers_bytes = models::flash_sectors * peers_sector_bytes;

class peers_chip final : public chip {
 public:
  peers_chip() {
    m_machine.write('l', 0, 0xEAFFFFFE);  // an endless loop
    m_machine.run();
  }
  uint16_t read(uint32_t offset) override { return static_cast<uint16_t>(m_machine.read('w', place(offset))); }

  void write(uint32_t offset, uint16_t data) override {
    if (m_words_left != 0 && m_words_left-- > 1) return program(offset, data);
    if (m_count_is_next) {
      m_words_left = data + 2U;  // and the confirmation
      m_count_is_next = false;
    } else if (m_unlocked && data == 0x25) {
      m_count_is_next = true;
      m_machine.write('w', place(offset), 0xF0);
    } else if (m_words_left == 0 && data != 0x29) {
      m_machine.write('w', place(offset), data);
    }
    m_unlocked = data == 0x55;
  }

 private:
  static uint32_t place(uint32_t offset) {
    const uint32_t sector = offset / models::flash_sector_bytes;
    return 0U - peers_bytes + sector * peers_sector_bytes + offset % peers_sector_bytes;
  }
  void program(uint32_t offset, uint16_t data) {
    m_machine.write('w', place(0xAAA), 0xAA);
    m_machine.write('w', place(0x554), 0x55);
    m_machine.write('w', place(0xAAA), 0xA0);
    m_machine.write('w', place(offset), data);
  }

  // All zeros: the first erase has something to do.
  qemu m_machine{
      "qemu-system-arm",
      {"-M", "musicpal", "-drive", "if=pflash,format=raw,file=" + make_file(std::vector<uint8_t>(peers_bytes))}};
  bool m_unlocked = false;
  bool m_count_is_next = false;
  uint32_t m_words_left = 0;
};

uint32_t bus_read(uint32_t /*inst*/, uint32_t offset, uint32_t *data, void * /*parm*/) {
  *data = fitted->read(offset);
  return HW_SUCCESS;
}

uint32_t bus_write(uint32_t /*inst*/, uint32_t offset, uint32_t data, void * /*parm*/) {
  fitted->write(offset, static_cast<uint16_t>(data));
  return HW_SUCCESS;
}

using words = std::vector<uint16_t>;

// Erases the sector, writes groups of words, erases again. Returns what was read after each.
words use_sector(uint32_t sector, obfl_timeout_t times, uint64_t random) {
  std::vector<obfl_addr_t> at;
  words data;
  for (int group = 0; group < 40; ++group) {
    obfl_addr_t next{};
    next.addr =
        sector * OBFL_SECTOR_SIZE + static_cast<uint32_t>(sim::random_next(&random)) % peers_sector_bytes / 2 * 2;
    const uint64_t length = 1 + sim::random_next(&random) % 20;
    for (uint64_t i = 0; i < length && next.addr % peers_sector_bytes != peers_sector_bytes - 2; i++, next.addr += 2) {
      at.push_back(next);
      data.push_back(static_cast<uint16_t>(sim::random_next(&random)));
    }
  }
  // What is written twice would have bits that go back to 1.
  const auto count = static_cast<uint32_t>(at.size());
  for (uint32_t i = 0; i < count; ++i)
    if (std::ranges::count(at, at[i].addr, &obfl_addr_t::addr) > 1) data[i] = 0x55AA;

  words read(3 * count);
  const auto done = [](uint32_t status) {
    if (status != HW_SUCCESS) give_up("driver: an operation failed");
  };
  obfl_addr_t start{};
  start.addr = sector * OBFL_SECTOR_SIZE;
  done(obfl_sector_erase(0, start, times));
  obfl_rd_array(0, count, at.data(), read.data());
  done(obfl_wr_array(0, count, at.data(), data.data(), times));
  obfl_rd_array(0, count, at.data(), read.data() + count);
  if (!std::equal(data.begin(), data.end(), read.begin() + count)) give_up("driver: other words than it wrote");
  done(obfl_sector_erase(0, start, times));
  obfl_rd_array(0, count, at.data(), read.data() + 2 * count);
  return read;
}

}  // namespace

extern "C" {
decltype(mmap_get_map_pci) __wrap_mmap_get_map_pci;
decltype(mmap_acc_init) __wrap_mmap_acc_init;
decltype(diag_spin_usec) __wrap_diag_spin_usec;

uint32_t __wrap_mmap_get_map_pci(uint32_t /*hwtype*/, uint32_t /*inst*/, uint32_t /*bar*/, uint32_t *base,
                                 uint32_t *len) {
  *base = 0;
  *len = models::flash_bytes;
  return HW_SUCCESS;
}

uint32_t __wrap_mmap_acc_init(mmap_info_t * /*info*/, const char * /*name*/, uint32_t /*num_inst*/,
                              const uint32_t * /*base_addr*/, uint32_t /*len*/, uint32_t /*width*/, hw_acc_cb_t *cb) {
  *cb = {};
  cb->m_rd = bus_read;
  cb->m_wr = bus_write;
  return HW_SUCCESS;
}

void __wrap_diag_spin_usec(uint32_t usec) {
  (void)usleep(usec);
}
}

// peer_driver SEED
int main(int argc, char **argv) {
  if (argc != 2) give_up("usage: peer_driver SEED");
  const uint64_t seed = std::strtoull(argv[1], nullptr, 0);
  our_chip ours;
  peers_chip peers;
  fitted = &ours;
  if (obfl_sw_init() != HW_SUCCESS) give_up("driver: no start");
  const obfl_timeout_t times = get_timeout_val(0);
  fitted = &peers;
  const obfl_timeout_t their_times = get_timeout_val(0);
  // As its query says: 2^9 ms and 2^10 times that; 2^0 µs, no write buffer.
  if (their_times.typ_erase_ms != 512 || their_times.max_erase_ms != 524288 || their_times.typ_wr_us != 1 ||
      their_times.max_wr_us != 1)
    give_up("driver: other times than the query says");
  size_t compared = 0;
  for (const uint32_t sector : {0U, 73U, 511U}) {
    fitted = &ours;
    const words here = use_sector(sector, times, seed + sector);
    fitted = &peers;
    const words there = use_sector(sector, their_times, seed + sector);
    if (here != there) give_up("driver: other words than on the model");
    compared += here.size();
  }
  std::printf("driver: 3 sectors erased twice and written, %zu words read, the same on both\n", compared);
  return 0;
}

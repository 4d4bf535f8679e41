// Bus cycles of any kind to the flash model. Bits only clear, an erase takes whole sectors, nothing else changes, and a
// reset always leads back to the array.
//
// A cycle is three bytes: what and in which sector, where in it, and the data.
#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "fuzz/fuzz.h"
#include "models/nor_flash.h"

namespace {

// Cycles go to these sectors; of the others, the first words are looked at.
constexpr std::array<uint32_t, 4> used_sectors{0, 1, 73, 511};

uint16_t content(uint32_t offset) {
  return static_cast<uint16_t>(offset / 2 * 0x9E37 ^ offset >> 17);
}

class chip {
 public:
  chip() {
    for (uint32_t s = 0; s < models::flash_sectors; ++s)
      if (std::ranges::find(used_sectors, s) == used_sectors.end())
        models::word_set(m_memory, s * models::flash_sector_bytes, content(s * models::flash_sector_bytes));
    for (size_t s = 0; s < used_sectors.size(); ++s) {
      const uint32_t base = used_sectors[s] * models::flash_sector_bytes;
      for (uint32_t at = base; at < base + models::flash_sector_bytes; at += 2)
        models::word_set(m_memory, at, content(at));
      m_pristine[s].assign(&m_memory[base], &m_memory[base] + models::flash_sector_bytes);
    }
  }

  void start() {
    for (const uint32_t offset : m_offsets)
      m_written[offset / 2] = false;
    m_offsets.clear();
    m_erased.fill(false);
    m_model = models::nor_flash(models::memory(m_memory));
  }

  void write(size_t sector, uint32_t word, uint8_t code, uint8_t high) {
    const uint32_t offset = used_sectors[sector] * models::flash_sector_bytes + word * 2;
    const auto data = static_cast<uint16_t>(high << 8U | code);
    m_written[offset / 2] = true;
    m_offsets.push_back(offset);
    if (code == 0x30) m_erased[sector] = true;
    m_model.write(offset, data);
  }

  void read(size_t sector, uint32_t word) {
    const uint32_t offset = used_sectors[sector] * models::flash_sector_bytes + word * 2;
    const uint16_t seen = m_model.read(offset);
    // The read may have ended an operation.
    MUST_HOLD(!m_model.reads_plainly() || m_model.read(offset) == models::word_get(m_memory, offset));
    MUST_HOLD(!m_model.reads_plainly() || seen == models::word_get(m_memory, offset) || seen < 0x100);
  }

  // Ends all operations: confirmations and data of commands that are open, polls, and the reset of an aborted buffer;
  // that twice, since the first may be what aborts a buffer that is being loaded.
  void reset() {
    for (uint32_t i = 0; i < 4; ++i) {
      write(0, 0x555, 0xF0, 0);
      for (int polls = 0; polls < 8; ++polls)
        (void)m_model.read(0);
    }
    for (uint32_t i = 0; i < 2; ++i) {
      write(0, 0x555, 0xAA, 0);
      write(0, 0x2AA, 0x55, 0);
      write(0, 0x555, 0xF0, 0);
    }
    MUST_HOLD(m_model.reads_array());
  }

  // What has changed may have: words that were written to, whole sectors. Then all is as it was.
  void check() {
    for (size_t s = 0; s < used_sectors.size(); ++s)
      check_sector(s);
    for (uint32_t s = 0; s < models::flash_sectors; ++s)
      MUST_HOLD(std::ranges::find(used_sectors, s) != used_sectors.end() ||
                models::word_get(m_memory, s * models::flash_sector_bytes) == content(s * models::flash_sector_bytes));
  }

 private:
  void check_sector(size_t s) {
    const uint32_t base = used_sectors[s] * models::flash_sector_bytes;
    if (std::equal(m_pristine[s].begin(), m_pristine[s].end(), &m_memory[base])) return;
    for (uint32_t at = base; at < base + models::flash_sector_bytes; at += 2) {
      const uint16_t before = content(at);
      const uint16_t after = models::word_get(m_memory, at);
      if (after == before) continue;
      const bool written = m_written[at / 2];
      MUST_HOLD(m_erased[s] || (written && (after & ~before) == 0));
      MUST_HOLD(written || after == 0xFFFF);
    }
    // Erased as a whole, or not at all.
    const auto tells = [&](uint32_t at) { return !m_written[at / 2] && content(at) != 0xFFFF; };
    const auto differs = [&](uint32_t at) { return models::word_get(m_memory, at) != content(at); };
    uint32_t first = base;
    while (!tells(first))
      first += 2;
    for (uint32_t at = first; m_erased[s] && at < base + models::flash_sector_bytes; at += 2)
      MUST_HOLD(!tells(at) || differs(at) == differs(first));
    std::ranges::copy(m_pristine[s], &m_memory[base]);
  }

  std::vector<uint8_t> m_memory = std::vector<uint8_t>(models::flash_bytes, 0xFF);
  std::array<std::vector<uint8_t>, used_sectors.size()> m_pristine;
  models::nor_flash m_model;
  std::vector<bool> m_written = std::vector<bool>(models::flash_bytes / 2);
  std::vector<uint32_t> m_offsets;  // that it holds
  std::array<bool, used_sectors.size()> m_erased{};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static chip flash;
  static constexpr uint32_t words[] = {0x555, 0x2AA, 0x055, 0x000, 0x010, 0x011, 0x7FFF, 0x8000};
  flash.start();
  for (size_t i = 0; i + 2 < size && i < 3 * 200; i += 3) {
    const size_t sector = data[i] & 3U;
    const uint32_t word = data[i + 1] < 0x80 ? words[data[i + 1] & 7U] : data[i + 1] * 0x101U & 0x7FFFU;
    // A whole chip takes too long to look at.
    const uint8_t code = data[i + 2] == 0x10 && word == 0x555 ? 0x11 : data[i + 2];
    if ((data[i] & 4U) != 0)
      flash.read(sector, word);
    else
      flash.write(sector, word, code, data[i] >> 3U);
  }
  flash.reset();
  flash.check();
  return 0;
}

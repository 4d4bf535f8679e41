// model_ram.h: an NVRAM of the models on a bus, with its contents as they were and are.
#pragma once

#include <list>
#include <sstream>

#include "faults/fault.h"
#include "locate/device.h"
#include "models/nvram.h"
#include "tests/support/test.h"

class model_ram : public locate::word_bus {
 public:
  // Noise, or one of the contents in which much is alike.
  //   asked  faults, with ';' between them; "" for none
  //   bytes  of the memory, a power of two
  model_ram(const std::string &asked, unsigned seed, uint32_t bytes = 0x8000)
      : m_tags(seed % 8 == 2), m_bytes(bytes, seed % 8 == 1 ? 0 : 0xFF) {
    std::mt19937 random(seed);
    for (uint32_t i = 0; m_tags && i < bytes; ++i)
      m_bytes[i] = i % 2 == 0 ? 0x21 : 0x9A;
    if (seed % 8 > 2) std::ranges::generate(m_bytes, [&] { return static_cast<uint8_t>(random()); });
    m_before = m_bytes;
    std::string error;
    std::vector<models::chip_fault> faults;
    std::istringstream list(asked);
    for (std::string fault; std::getline(list, fault, ';');) {
      m_asked.push_back(sim::fault_parse(fault, &error));
      EXPECT_EQ(error, "");
      if (m_asked.back()) faults.push_back(models::chip_fault_of(*m_asked.back()));
    }
    m_ram = models::nvram(models::memory(m_bytes), faults);
  }

  uint16_t read(uint32_t offset) override {
    ++m_accesses;
    return m_ram.read(offset);
  }
  void write(uint32_t offset, uint16_t word) override {
    ++m_accesses;
    m_ram.write(offset, word);
  }
  [[nodiscard]] uint32_t length() const override { return static_cast<uint32_t>(m_bytes.size()); }
  [[nodiscard]] uint64_t accesses() const { return m_accesses; }
  [[nodiscard]] bool holds_tags() const { return m_tags; }

  // The words that differ now from what they were, by their offsets, with the bits in which they do.
  [[nodiscard]] std::map<uint32_t, unsigned> changed() const {
    std::map<uint32_t, unsigned> found;
    for (uint32_t at = 0; at < m_bytes.size(); ++at)
      if (m_bytes[at] != m_before[at])
        found[at & ~1U] |= static_cast<unsigned>(m_bytes[at] ^ m_before[at]) << 8 * (at & 1);
    return found;
  }

 private:
  bool m_tags;  // every word is the first tag of the lines' probe
  std::vector<uint8_t> m_bytes;
  std::vector<uint8_t> m_before;
  std::list<std::optional<sim::fault>> m_asked;
  models::nvram m_ram;
  uint64_t m_accesses = 0;
};

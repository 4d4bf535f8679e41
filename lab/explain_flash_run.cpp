#include "lab/explain_flash_run.h"

#include <algorithm>
#include <array>
#include <bit>

namespace lab {
namespace {

constexpr uint32_t list_words = 16;

flash_list make_list(uint32_t sector, auto offset, auto data) {
  flash_list list;
  for (uint32_t i = 0; i < list_words; ++i) {
    list.addresses.push_back(sector * chip_sector_bytes + offset(i));
    list.data.push_back(static_cast<uint16_t>(data(i)));
  }
  return list;
}

std::vector<flash_sector_test> make_tests() {
  std::vector<flash_sector_test> tests;
  tests.push_back({6,
                   {make_list(
                        6, [](uint32_t i) { return 2 * i; }, [](uint32_t i) { return 1U << i; }),
                    make_list(
                        6, [](uint32_t i) { return 0x20 + 2 * i; }, [](uint32_t i) { return ~(1U << i); })}});
  tests.push_back({0,
                   {make_list(
                        0, [](uint32_t i) { return 2U << i; }, [](uint32_t i) { return i; }),
                    make_list(
                        0, [](uint32_t i) { return 0x1FFFE & ~(1U << i); }, [](uint32_t i) { return 16 + i; })}});
  const auto high = [&tests](uint32_t number) {
    const uint32_t sector = number % chip_sectors;
    tests.push_back({sector, {{{sector * chip_sector_bytes + 0xCAFE}, {static_cast<uint16_t>(number)}}}});
  };
  for (uint32_t number = 2; number <= chip_sectors; number *= 2) {
    high(number);
    high(chip_sectors - 1 - number);
  }
  return tests;
}

// Pages that stand for all of a sector.
std::vector<uint32_t> make_pages() {
  constexpr uint32_t pages = chip_sector_bytes / chip_page_bytes;
  std::vector<uint32_t> list{0};
  for (uint32_t page = 1; page < pages; page *= 2)
    list.push_back(page);
  list.push_back(pages - 1);
  return list;
}

enum status_bits : uint16_t { dq2 = 0x04, dq5 = 0x20, dq6 = 0x40 };

// More polls than a fast operation needs; a wait of so many that go on has no end.
constexpr uint64_t most_polls = 4096;

// A power of two as the test keeps it, in 32 bits.
uint64_t power(uint32_t exponent) {
  return exponent < 32 ? uint64_t{1} << exponent : 0;
}

uint64_t polls_of(uint32_t typical, uint32_t most, uint64_t unit) {
  const auto time = power(typical);
  if (time == 0 || time > UINT32_MAX / unit) return 1;
  return std::max(power(typical + most) / time, uint64_t{1});
}

class flash_test {
 public:
  explicit flash_test(flash_chip *chip) : m_chip(chip) {}

  std::vector<flash_event> run(bool *hung) {
    const auto write = query(0x40, 0x48);
    const auto erase = query(0x42, 0x4A);
    m_write_polls = polls_of(write.first, write.second, 1);
    m_erase_polls = polls_of(erase.first, erase.second, 1000);
    for (const auto &one : flash_sector_tests())
      if (!sector(one)) break;
    *hung = m_hung;
    return std::move(m_events);
  }

 private:
  std::pair<uint16_t, uint16_t> query(uint32_t typical, uint32_t most) {
    m_chip->write(0xAA, 0x98);
    const auto first = m_chip->read(typical);
    const auto second = m_chip->read(most);
    m_chip->write(0xAAA, 0xF0);
    return {first, second};
  }

  void unlock() {
    m_chip->write(0xAAA, 0xAA);
    m_chip->write(0x554, 0x55);
  }

  bool fail(flash_line line) {
    m_events.push_back({line});
    return false;
  }

  bool wait(uint32_t address, uint64_t polls, unsigned running) {
    uint16_t now = 0;
    for (uint64_t i = 0; i < polls; ++i) {
      const auto before = m_chip->read(address);
      now = m_chip->read(address);
      if (((before ^ now) & running) != running) return true;
      m_hung |= i > most_polls;
      if (m_hung) return true;
    }
    return fail((now & dq5) != 0 ? flash_line::gave_up : flash_line::timed_out);
  }

  bool erase(uint32_t sector) {
    unlock();
    m_chip->write(0xAAA, 0x80);
    unlock();
    m_chip->write(sector * chip_sector_bytes, 0x30);
    return wait(sector * chip_sector_bytes, m_erase_polls, dq6 | dq2) || fail(flash_line::erase_failed);
  }

  bool program(uint32_t sector, std::span<const uint32_t> addresses, std::span<const uint16_t> data) {
    const auto base = sector * chip_sector_bytes;
    unlock();
    m_chip->write(base, 0x25);
    m_chip->write(base, static_cast<uint16_t>(data.size() - 1));
    for (size_t i = 0; i < data.size(); ++i)
      m_chip->write(addresses[i], data[i]);
    m_chip->write(base, 0x29);
    return wait(addresses.back(), m_write_polls, dq6);
  }

  bool write_list(uint32_t sector, const flash_list &list) {
    for (size_t first = 0; first < list.data.size();) {
      const auto end = end_of_page(list, first);
      const auto count = end - first;
      if (!program(sector, std::span(list.addresses).subspan(first, count), std::span(list.data).subspan(first, count)))
        return fail(flash_line::write_failed);
      first = end;
    }
    return true;
  }

  bool test_list(uint32_t sector, const flash_list &list) {
    if (!write_list(sector, list)) return false;
    std::vector<uint16_t> words;
    for (const auto address : list.addresses)
      words.push_back(m_chip->read(address));
    const auto differ = std::ranges::mismatch(words, list.data);
    if (differ.in1 == words.end()) return true;
    const auto entry = static_cast<size_t>(differ.in1 - words.begin());
    m_events.push_back({flash_line::mismatch, list.addresses[entry], list.data[entry], words[entry]});
    return false;
  }

  // The addresses of a page.
  static std::array<uint32_t, list_words> page_of(uint32_t sector, uint32_t page) {
    std::array<uint32_t, list_words> addresses;
    for (uint32_t i = 0; i < list_words; ++i)
      addresses[i] = sector * chip_sector_bytes + page * chip_page_bytes + 2 * i;
    return addresses;
  }

  bool restore(uint32_t sector, std::span<const uint16_t> saved) {
    if (!erase(sector)) return false;
    for (const auto page : pages()) {
      if (!program(sector, page_of(sector, page), saved.first(list_words))) return fail(flash_line::restore_failed);
      saved = saved.subspan(list_words);
    }
    return true;
  }

  static const std::vector<uint32_t> &pages() {
    static const auto list = make_pages();
    return list;
  }

  bool sector(const flash_sector_test &test) {
    std::vector<uint16_t> saved;
    for (const auto page : pages())
      for (const auto address : page_of(test.sector, page))
        saved.push_back(m_chip->read(address));
    if (!erase(test.sector)) return false;
    const bool good =
        std::ranges::all_of(test.lists, [&](const flash_list &list) { return test_list(test.sector, list); });
    const bool restored = restore(test.sector, saved);
    return good && restored && !m_hung;
  }

  flash_chip *m_chip;
  uint64_t m_write_polls = 1;
  uint64_t m_erase_polls = 1;
  std::vector<flash_event> m_events;
  bool m_hung = false;
};

}  // namespace

const std::vector<flash_sector_test> &flash_sector_tests() {
  static const auto tests = make_tests();
  return tests;
}

size_t end_of_page(const flash_list &list, size_t first) {
  size_t end = first + 1;
  while (end < list.addresses.size() &&
         list.addresses[end] / chip_page_bytes == list.addresses[first] / chip_page_bytes)
    ++end;
  return end;
}

std::vector<flash_event> run_flash_test(flash_chip *chip, bool *hung) {
  return flash_test(chip).run(hung);
}

}  // namespace lab

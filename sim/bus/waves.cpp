#include "sim/bus/waves.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

#include "sim/bus/layout.h"

namespace sim {

namespace {

// A row of the file's declarations. Each bit is a signal of its own, "a0" and so on: not every program that reads such
// files takes numbers. Signals whose names end in _n are active low.
struct signal {
  const char *id;
  unsigned width;  // 0 for a text
  const char *name;
  bool rest;  // the level at rest
};

// clang-format off
constexpr std::array signals{std::to_array<signal>({
    {"A", 26, "a",            false},
    {"D", 16, "d",            false},
    {"P", 32, "port",         false},
    {"B",  2, "be_n",         true},
    {"O",  1, "oe_n",         true},
    {"W",  1, "we_n",         true},
    {"0",  1, "nvram0_ce_n",  true},
    {"1",  1, "nvram1_ce_n",  true},
    {"2",  1, "nvram2_ce_n",  true},
    {"3",  1, "flash_ce_n",   true},
    {"Y",  1, "flash_ready",  true},
    {"I",  1, "port_read_n",  true},
    {"U",  1, "port_write_n", true},
    {"T",  0, "row",          false},
})};
// clang-format on

constexpr uint64_t quarter_bit = 25;  // of an I2C bit at 100 kHz

std::string scl(uint32_t bus) {
  return "c" + std::to_string(bus);
}
std::string sda(uint32_t bus) {
  return "d" + std::to_string(bus);
}

// Declares a signal in the one text, and puts its level into the other.
struct declarations {
  std::string signals, levels;

  void add(const std::string &id, const std::string &name, bool rest) {
    signals += "$var wire 1 " + id + " " + name + " $end\n";
    levels += (rest ? "1" : "0") + id + "\n";
  }
};

}  // namespace

std::string waves::header(std::span<const uint32_t> i2c_buses) {
  declarations all;
  for (const auto &s : signals) {
    for (unsigned bit = 0; bit < s.width; ++bit) {
      const auto number = s.width > 1 ? std::to_string(bit) : "";
      all.add(s.id + number, s.name + number, s.rest);
    }
    if (s.width == 0) all.signals += std::string("$var string 1 ") + s.id + " " + s.name + " $end\n";
  }
  for (const auto bus : i2c_buses) {
    all.add(scl(bus), "i2c" + std::to_string(bus) + "_scl", true);
    all.add(sda(bus), "i2c" + std::to_string(bus) + "_sda", true);
  }
  return "$timescale 100 ns $end\n$scope module board $end\n" + all.signals +
         "$upscope $end\n$enddefinitions $end\n#0\n$dumpvars\n" + all.levels + "$end\n";
}

// --- Text -----------------------------------------------------------------------------------------------------------

void waves::at(uint64_t later) {
  m_time += later;
  m_text += "#" + std::to_string(m_time) + "\n";
}

void waves::level(std::string_view id, bool high) {
  m_text.append(high ? "1" : "0").append(id).append("\n");
}

// The bits that change.
void waves::number(vector *of, uint32_t value) {
  for (unsigned bit = 0; bit < of->width; ++bit)
    if (!of->last || ((value ^ *of->last) >> bit & 1U) != 0)
      level(of->id + std::to_string(bit), (value >> bit & 1U) != 0);
  of->last = value;
}

std::string waves::take() {
  return std::exchange(m_text, "");
}

void waves::go_on_from(uint64_t time) {
  m_time = std::max(m_time, time);
  for (auto *const of : {&m_address, &m_data, &m_port, &m_lanes})
    of->last.reset();
  m_ready.reset();
}

std::string waves::row(std::string_view name) {
  at(1);
  m_text += "s";
  for (const char c : name)
    m_text += c == ' ' ? '_' : c;
  m_text += " T\n";
  return take();
}

std::string waves::cycle(const bus_cycle &cycle) {
  if (cycle.device.starts_with("i2c-")) {
    i2c_message(cycle);
  } else if (cycle.device == "port") {
    port_cycle(cycle);
  } else {
    memory_cycle(cycle);
  }
  return take();
}

// --- The local bus --------------------------------------------------------------------------------------------------

void waves::memory_cycle(const bus_cycle &cycle) {
  const auto *const found = std::ranges::find(windows, cycle.device, [](const window &w) { return w.name; });
  if (found == windows.end()) return;
  const auto chip = static_cast<char>('0' + (found - windows.begin()));
  for_each_cycle(static_cast<uint32_t>(cycle.offset), cycle.width, [&](uint32_t word, uint16_t lanes, int shift) {
    const uint64_t data = shift < 0 ? cycle.data << -shift : cycle.data >> shift;
    bus_word(chip, cycle.kind == 'r', word, lanes, static_cast<uint16_t>(data));
  });
}

void waves::bus_word(char chip, bool reading, uint32_t offset, uint16_t lanes, uint16_t word) {
  const std::string_view select(&chip, 1);
  const char *const strobe = reading ? "O" : "W";
  at(1);
  number(&m_address, offset);
  number(&m_lanes, ((lanes & 0xFF) != 0 ? 0U : 1U) | ((lanes & 0xFF00) != 0 ? 0U : 2U));
  level(select, false);
  level(strobe, false);
  at(1);
  number(&m_data, word);
  at(2);
  level(strobe, true);
  at(1);
  level(select, true);
}

std::string waves::flash_ready(bool ready) {
  if (ready == m_ready) return "";
  m_ready = ready;
  at(1);
  level("Y", ready);
  return take();
}

void waves::port_cycle(const bus_cycle &cycle) {
  const char *const strobe = cycle.kind == 'r' ? "I" : "U";
  at(1);
  level(strobe, false);
  number(&m_port, static_cast<uint32_t>(cycle.data));
  at(4);
  level(strobe, true);
}

// --- I2C ------------------------------------------------------------------------------------------------------------

// Data change in the middle of the clock's low half.
void waves::i2c_bit(uint32_t bus, bool high) {
  level(scl(bus), false);
  at(quarter_bit);
  level(sda(bus), high);
  at(quarter_bit);
  level(scl(bus), true);
  at(2 * quarter_bit);
}

void waves::i2c_byte(uint32_t bus, uint8_t byte, bool acknowledged) {
  for (unsigned bit = 8; bit-- > 0;)
    i2c_bit(bus, (uint32_t{byte} >> bit & 1U) != 0);
  i2c_bit(bus, !acknowledged);
}

// A start while the clock is high; of a later message a repeated one. What was not acknowledged ends with its address.
void waves::i2c_message(const bus_cycle &cycle) {
  const std::string name(cycle.device.substr(4));
  char *end = nullptr;
  const auto bus = static_cast<uint32_t>(std::strtoul(name.c_str(), &end, 10));
  const auto address = static_cast<uint8_t>(std::strtoul(end + 1, nullptr, 16));
  at(quarter_bit);
  if (cycle.offset != 0) i2c_bit(bus, true);
  level(sda(bus), false);
  at(quarter_bit);
  const bool reading = cycle.kind == 'r' || cycle.kind == 'R';
  const bool answered = cycle.kind == 'r' || cycle.kind == 'w';
  i2c_byte(bus, static_cast<uint8_t>(uint32_t{address} << 1U | (reading ? 1U : 0U)), answered);
  if (!answered) return;
  for (size_t i = 0; i < cycle.message.size(); ++i)
    i2c_byte(bus, cycle.message[i], !reading || i + 1 < cycle.message.size());
}

std::string waves::i2c_stop(uint32_t bus) {
  i2c_bit(bus, false);
  level(sda(bus), true);
  at(quarter_bit);
  return take();
}

}  // namespace sim

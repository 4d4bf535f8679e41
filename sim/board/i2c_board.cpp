#include "sim/board/i2c_board.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>

#include "sim/board/sprom_image.h"
#include "sim/devices/eeprom.h"
#include "sim/devices/expander.h"
#include "sim/devices/port.h"

namespace sim {

namespace {

enum family_bits : unsigned {
  on_dorvan = 1u << static_cast<unsigned>(family::dorvan),
  on_pellin = 1u << static_cast<unsigned>(family::pellin),
  on_tosk = 1u << static_cast<unsigned>(family::tosk),
  on_both = on_pellin | on_tosk,
};

// What holds an EEPROM's protect pin.
enum class protect {
  nothing,    // low
  port,       // bit 27 of I/O port 0x50C
  pin3,       // pin 3 of the expander on the same bus
  mezzanine,  // a pin of the mezzanine's expander, another one on early boards
};

// One image in an EEPROM. Rows with the same bus and address are one chip: a large one for supervisor, backplane and
// modules, one with a single address byte for the rest.
struct image_row {
  unsigned families;
  const char *name;  // as faults name it, null for images that none names
  uint32_t kind;     // SPROM_TYPE_*
  uint32_t bus;
  uint8_t addr;
  uint16_t base;  // where the image starts
  protect pin;
  const char *product;
  const char *serial;
};

// clang-format off
constexpr std::array image_rows{std::to_array<image_row>({
    // families name     kind             bus addr  base    protected by        product         serial
    {on_dorvan, "sup",   SPROM_TYPE_SUP,  1,  0x52, 0,      protect::nothing,   "SUP-DORVAN",   "SIM00000001"},
    {on_dorvan, "bp",    SPROM_TYPE_BP,   1,  0x52, 0x1000, protect::nothing,   "BP-DORVAN",    "SIM00000002"},
    {on_pellin, "sup",   SPROM_TYPE_SUP,  1,  0x52, 0,      protect::port,      "SUP-PELLIN",   "SIM00000001"},
    {on_pellin, "bp",    SPROM_TYPE_BP,   1,  0x52, 0x1000, protect::port,      "BP-PELLIN",    "SIM00000002"},
    {on_tosk,   "sup",   SPROM_TYPE_SUP,  1,  0x52, 0,      protect::port,      "SUP-TOSK",     "SIM00000001"},
    {on_tosk,   "bp",    SPROM_TYPE_BP,   1,  0x52, 0x1000, protect::port,      "BP-TOSK",      "SIM00000002"},
    {on_pellin, "dc1",   SPROM_TYPE_LC,   17, 0x52, 0,      protect::mezzanine, "DC-VARNHOLM",  "SIM00000003"},
    {on_pellin, "lc2",   SPROM_TYPE_LC,   23, 0x52, 0,      protect::pin3,      "GEM-VARNHOLM", "SIM00000004"},
    {on_pellin, "lc3",   SPROM_TYPE_LC,   7,  0x52, 0,      protect::pin3,      "GEM-MIRN",     "SIM00000005"},
    {on_tosk,   "lc2",   SPROM_TYPE_LC,   7,  0x52, 0,      protect::pin3,      "GEM-QUELLRIM", "SIM00000004"},
    {on_both,   "ps1",   SPROM_TYPE_PS,   6,  0x52, 0,      protect::nothing,   "PWR-3000",     "SIM00000006"},
    {on_both,   "ps2",   SPROM_TYPE_PS,   6,  0x53, 0,      protect::nothing,   "PWR-3000",     "SIM00000007"},
    {on_both,   nullptr, SPROM_TYPE_FAN,  6,  0x54, 0,      protect::nothing,   "FAN-4",        "SIM00000008"},
    {on_both,   nullptr, SPROM_TYPE_DIMM, 0,  0x5E, 0,      protect::nothing,   "DIMM-2G",      ""},
    {on_both,   nullptr, SPROM_TYPE_DIMM, 0,  0x55, 0,      protect::nothing,   "DIMM-2G",      ""},
})};

enum class chip { pca9539, pca8575 };

struct expander_row {
  unsigned families;
  sim::chip chip;
  uint32_t bus;
  uint8_t addr;
  unsigned straps;  // lowest of the two pins with the board's identification straps, 16 for none
};

constexpr std::array expander_rows{std::to_array<expander_row>({
    // families chip           bus addr  straps
    {on_both,   chip::pca9539, 8,  0x76, 6},
    {on_both,   chip::pca8575, 8,  0x26, 14},
    {on_both,   chip::pca9539, 7,  0x75, 16},
    {on_pellin, chip::pca9539, 23, 0x75, 16},
    {on_pellin, chip::pca9539, 20, 0x76, 16},
})};
// clang-format on

constexpr uint32_t module_card = 11900;  // card index of a module, none of a supervisor
constexpr uint8_t gem_expander = 0x75;
constexpr uint32_t mezzanine_bus = 20;
constexpr uint8_t mezzanine_expander = 0x76;
constexpr uint16_t gem_pin = 0x0008;
constexpr uint16_t mezzanine_pin = 0x0200;
constexpr uint16_t mezzanine_early_pin = 0x0080;

constexpr eeprom_chip chip_of(const image_row &row) {
  const bool is_large = row.kind == SPROM_TYPE_SUP || row.kind == SPROM_TYPE_BP || row.kind == SPROM_TYPE_LC;
  return is_large ? at24c512 : at24c02;
}

bool has(unsigned families, const options &opts) {
  return (families >> static_cast<unsigned>(opts.family) & 1) != 0;
}

// The rows of a table that the board has.
template <typename T, size_t N>
std::vector<T> present(const std::array<T, N> &rows, const options &opts) {
  std::vector<T> list;
  for (const auto &row : rows)
    if (has(row.families, opts)) list.push_back(row);
  return list;
}

const fault *device_fault(const options &opts, fault_id id, uint32_t bus, uint8_t addr) {
  for (const auto &f : opts.faults)
    if (f.id == id && f.is_at(bus, addr)) return &f;
  return nullptr;
}

uint64_t straps_of(family family) {
  return family == family::tosk ? 2 : 0;
}

expander_pins pins_of(const expander_row &row, const options &opts) {
  expander_pins pins;
  if (row.straps < 16) {
    const auto mask = static_cast<uint16_t>(3u << row.straps);
    pins.level = static_cast<uint16_t>((pins.level & ~mask) | straps_of(opts.family) << row.straps);
    if (const auto *const f = opts.find(fault_id::straps))
      pins.outside.push_back({f, mask, static_cast<uint16_t>(f->get("value") << row.straps)});
  }
  for (const auto &f : opts.faults) {
    if (f.id != fault_id::pin_stuck || !f.is_at(row.bus, row.addr)) continue;
    const auto pin = static_cast<uint16_t>(1u << f.get("pin"));
    pins.stuck.push_back({&f, pin, f.get("level") != 0 ? pin : uint16_t{0}});
  }
  return pins;
}

struct placed_expander {
  uint32_t bus;
  uint8_t addr;
  const expander *chip;
};

// The level of an EEPROM's protect pin, high where nothing drives it.
std::function<bool()> protection(const image_row &row, const options &opts, const io_port &port,
                                 const std::vector<placed_expander> &expanders) {
  if (row.pin == protect::nothing) return nullptr;
  if (row.pin == protect::port) return [&port] { return port.write_protected(); };
  const bool on_mezzanine = row.pin == protect::mezzanine;
  const uint32_t bus = on_mezzanine ? mezzanine_bus : row.bus;
  const uint8_t addr = on_mezzanine ? mezzanine_expander : gem_expander;
  uint16_t pin = gem_pin;
  if (on_mezzanine) pin = opts.change_bits == 0 ? mezzanine_early_pin : mezzanine_pin;
  for (const auto &at : expanders)
    if (at.bus == bus && at.addr == addr) return [chip = at.chip, pin] { return (chip->levels(pin) & pin) != 0; };
  return [] { return true; };
}

std::vector<eeprom::setup::corruption> corruptions(const options &opts, uint32_t bus, uint8_t addr) {
  std::vector<eeprom::setup::corruption> list;
  for (const auto &f : opts.faults) {
    const auto bits = static_cast<uint8_t>(f.get("xor"));
    if (f.id == fault_id::eeprom_corrupt && f.is_at(bus, addr))
      list.push_back({static_cast<uint16_t>(f.get("offset")), bits, &f});
    if (f.id != fault_id::sprom_corrupt) continue;
    for (const auto &row : present(image_rows, opts)) {
      if (row.bus != bus || row.addr != addr || row.name == nullptr) continue;
      if (row.name != f.word("image")) continue;
      if (const auto *const block = image_block_of(row.kind, f.word("block")))
        list.push_back({static_cast<uint16_t>(row.base + block->offset + f.get("offset")), bits, &f});
    }
  }
  return list;
}

eeprom::setup setup_of(const image_row &row, const options &opts, const io_port &port,
                       const std::vector<placed_expander> &expanders) {
  eeprom::setup with;
  with.chip = chip_of(row);
  with.busy = opts.busy;
  if (const auto *const f = device_fault(opts, fault_id::eeprom_busy, row.bus, row.addr)) {
    with.busy = busy::polls;
    with.busy_polls = f->get("polls");
    with.busy_forever = with.busy_polls == 0;
    with.slow = f;
  }
  with.locked = device_fault(opts, fault_id::eeprom_protected, row.bus, row.addr);
  with.write_protected = protection(row, opts, port, expanders);
  with.corrupt = corruptions(opts, row.bus, row.addr);
  for (const auto id : {fault_id::eeprom_power_cut, fault_id::eeprom_dies})
    if (const auto *const f = device_fault(opts, id, row.bus, row.addr))
      with.cut = {f, f->get("nth"), static_cast<uint8_t>(f->get("torn")), id == fault_id::eeprom_power_cut};
  return with;
}

// What a new chip at this place holds: all its images, the rest erased.
std::vector<uint8_t> contents_of(const image_row &chip, const options &opts) {
  std::vector<uint8_t> contents(chip_of(chip).size, 0xFF);
  for (const auto &row : present(image_rows, opts)) {
    if (row.bus != chip.bus || row.addr != chip.addr) continue;
    const auto card = static_cast<uint16_t>(row.kind == SPROM_TYPE_SUP ? opts.card : module_card);
    const identity id{row.product, row.serial, opts.change_bits, card};
    std::ranges::copy(make_image(row.kind, id), contents.begin() + row.base);
  }
  return contents;
}

std::string chip_path(const options &opts, const char *kind, uint32_t bus, uint8_t addr) {
  char name[32];
  (void)std::snprintf(name, sizeof(name), "/%s-%u-%02x", kind, bus, addr);
  return opts.state + name;
}

using files = std::vector<std::unique_ptr<backing_file>>;

// Memory in a file that starts as `initial`; none if the state directory cannot be used, with the reason in *error.
std::span<uint8_t> kept(files *in, const std::string &path, std::span<const uint8_t> initial, std::string *error) {
  auto &file = *in->emplace_back(std::make_unique<backing_file>());
  const auto next = [&] { return initial; };
  return file.open(path, initial.size(), next, error) ? file.bytes() : std::span<uint8_t>{};
}

bool keep_port(io_port *port, const options &opts, files *in, std::string *error) {
  const auto initial = std::bit_cast<std::array<uint8_t, sizeof port_initial>>(port_initial);
  const auto latch = kept(in, opts.state + "/port", initial, error);
  if (latch.empty()) return false;
  port->keep(reinterpret_cast<uint32_t *>(latch.data()));  // at the start of a page
  return true;
}

// A new expander; null if the state directory cannot be used.
std::unique_ptr<expander> make_expander(const expander_row &row, const options &opts, files *in, std::string *error) {
  if (row.chip == chip::pca8575) return std::make_unique<pca8575>(pins_of(row, opts));
  const auto registers = kept(in, chip_path(opts, "expander", row.bus, row.addr), pca9539::power_on, error);
  if (registers.empty()) return nullptr;
  auto made = std::make_unique<pca9539>(pins_of(row, opts));
  made->keep(registers.first<pca9539::power_on.size()>());
  return made;
}

// What stands at the place that a fault names: the size of an EEPROM, or an expander.
struct named_device {
  size_t eeprom_size = 0;
  bool is_expander = false;
};
named_device device_of(const options &opts, const fault &f) {
  named_device device;
  for (const auto &row : present(image_rows, opts))
    if (f.is_at(row.bus, row.addr)) device.eeprom_size = chip_of(row).size;
  for (const auto &row : present(expander_rows, opts))
    if (f.is_at(row.bus, row.addr)) device.is_expander = true;
  return device;
}

// Whether the board has what the fault is about: "" or what it lacks.
std::string check_fault(const options &opts, const fault &f) {
  const auto device = device_of(opts, f);
  const bool is_eeprom = device.eeprom_size != 0;
  if (f.has("addr") && !is_eeprom && !device.is_expander) return "the board has no such I2C device";
  if (f.has("addr") && f.row().part == fault_part::eeprom && !is_eeprom) return "the device is no EEPROM";
  if (f.id == fault_id::eeprom_corrupt && f.get("offset") >= device.eeprom_size)
    return "the EEPROM ends before this offset";
  if (f.id == fault_id::pin_stuck && !device.is_expander) return "the device is no I/O expander";
  if (f.row().part == fault_part::i2c && f.has("bus")) {
    options healthy = opts;
    healthy.faults.clear();
    const auto numbers = i2c_bus_numbers(healthy);
    if (std::ranges::find(numbers, f.get("bus")) == numbers.end()) return "the board has no such I2C bus";
  }
  if (f.id == fault_id::straps && opts.family == family::dorvan) return "the board has no straps";
  if (f.id == fault_id::straps && f.get("value") == straps_of(opts.family)) return "the straps have this value anyway";
  if (f.id != fault_id::sprom_corrupt) return "";
  for (const auto &row : present(image_rows, opts)) {
    if (row.name == nullptr || row.name != f.word("image")) continue;
    const auto *const block = image_block_of(row.kind, f.word("block"));
    if (block == nullptr) return "the image has no such block";
    return f.get("offset") < block->length ? "" : "the block ends before this offset";
  }
  return "the board has no such SPROM";
}

}  // namespace

std::vector<uint32_t> i2c_bus_numbers(const options &opts) {
  std::vector<uint32_t> numbers;
  for (const auto &row : present(image_rows, opts))
    numbers.push_back(row.bus);
  for (const auto &row : present(expander_rows, opts))
    numbers.push_back(row.bus);
  std::ranges::sort(numbers);
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  for (const auto &f : opts.faults)
    if (f.id == fault_id::i2c_bus_absent) std::erase(numbers, f.get("bus"));
  return numbers;
}

std::string i2c_board::check(const options &opts) {
  for (const auto &f : opts.faults) {
    const auto lacks = check_fault(opts, f);
    if (!lacks.empty()) return "fault '" + f.text + "': " + lacks;
  }
  return "";
}

std::unique_ptr<i2c_board> i2c_board::make(const options &opts, io_port &port, std::string *error) {
  auto board = std::make_unique<i2c_board>();
  if (!keep_port(&port, opts, &board->m_files, error)) return nullptr;
  for (const auto number : i2c_bus_numbers(opts))
    board->m_buses.push_back(std::make_unique<i2c_bus>(number, opts));

  std::vector<placed_expander> expanders;
  for (const auto &row : present(expander_rows, opts)) {
    auto *const bus = board->bus(row.bus);
    if (bus == nullptr) continue;
    auto made = make_expander(row, opts, &board->m_files, error);
    if (made == nullptr) return nullptr;
    expanders.push_back({row.bus, row.addr, made.get()});
    bus->add(row.addr, std::move(made));
  }
  for (const auto &row : present(image_rows, opts)) {
    auto *const bus = board->bus(row.bus);
    if (bus == nullptr || bus->has(row.addr)) continue;
    auto made = std::make_unique<eeprom>(setup_of(row, opts, port, expanders));
    if (!made->open(chip_path(opts, "eeprom", row.bus, row.addr), contents_of(row, opts), error)) return nullptr;
    bus->add(row.addr, std::move(made));
  }
  return board;
}

i2c_bus *i2c_board::bus(uint32_t number) const {
  const auto found = std::ranges::find_if(m_buses, [&](const auto &bus) { return bus->number() == number; });
  return found == m_buses.end() ? nullptr : found->get();
}

}  // namespace sim

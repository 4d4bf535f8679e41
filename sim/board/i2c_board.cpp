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
// clang-format on

using files = std::vector<std::unique_ptr<backing_file>>;

enum class device_kind { expander, other };

// A device other than an EEPROM.
struct device_row {
  // A new device; null if the state directory cannot be used, with the reason in *error.
  using maker = std::unique_ptr<i2c_device>(const device_row &row, const options &opts, files *in, std::string *error);

  unsigned families;
  uint32_t bus;
  uint8_t addr;
  device_kind kind;
  maker *make;
  unsigned straps = 16;  // of an expander: lowest of the two pins with the board's identification straps, 16 for none
};

device_row::maker make_pca8575;
device_row::maker make_pca9539;

// clang-format off
constexpr std::array device_rows{std::to_array<device_row>({
    // families bus addr  kind                   maker         straps
    {on_both,   8,  0x76, device_kind::expander, make_pca9539, 6},
    {on_both,   8,  0x26, device_kind::expander, make_pca8575, 14},
    {on_both,   7,  0x75, device_kind::expander, make_pca9539},
    {on_pellin, 23, 0x75, device_kind::expander, make_pca9539},
    {on_pellin, 20, 0x76, device_kind::expander, make_pca9539},
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

expander_pins pins_of(const device_row &row, const options &opts) {
  expander_pins pins;
  if (row.straps < 16) {
    const auto mask = static_cast<uint16_t>(3u << row.straps);
    pins.level = static_cast<uint16_t>((pins.level & ~mask) | straps_of(opts.family) << row.straps);
    for (const auto &f : opts.faults)
      if (f.id == fault_id::straps)
        pins.outside.push_back({&f, mask, static_cast<uint16_t>(f.get(parm::value) << row.straps)});
  }
  for (const auto &f : opts.faults) {
    if (f.id != fault_id::pin_stuck || !f.is_at(row.bus, row.addr)) continue;
    const auto pin = static_cast<uint16_t>(1u << f.get(parm::pin));
    pins.stuck.push_back({&f, pin, f.get(parm::level) != 0 ? pin : uint16_t{0}});
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
    const auto bits = static_cast<uint8_t>(f.find(parm::invert).value_or(0));
    if (f.id == fault_id::eeprom_corrupt && f.is_at(bus, addr))
      list.push_back({static_cast<uint16_t>(f.get(parm::offset)), bits, &f});
    if (f.id != fault_id::sprom_corrupt) continue;
    for (const auto &row : present(image_rows, opts)) {
      if (row.bus != bus || row.addr != addr || row.name == nullptr) continue;
      if (row.name != f.word(parm::image)) continue;
      if (const auto *const block = image_block_of(row.kind, f.word(parm::block)))
        list.push_back({static_cast<uint16_t>(row.base + block->offset + f.get(parm::offset)), bits, &f});
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
    with.busy_polls = f->get(parm::polls);
    with.busy_forever = with.busy_polls == 0;
    with.slow = f;
  }
  with.write_protected = protection(row, opts, port, expanders);
  with.corrupt = corruptions(opts, row.bus, row.addr);
  for (const auto &f : opts.faults) {
    const bool of_the_run = f.id == fault_id::eeprom_power_cut;
    if (f.id == fault_id::eeprom_protected && f.is_at(row.bus, row.addr)) with.locked.push_back(&f);
    if ((!of_the_run && f.id != fault_id::eeprom_dies) || !f.is_at(row.bus, row.addr)) continue;
    // Nothing is written after the first of them.
    if (with.cut.cause == nullptr || f.get(parm::nth) < with.cut.byte)
      with.cut = {&f, f.get(parm::nth), static_cast<uint8_t>(f.get(parm::torn)), of_the_run};
  }
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

// Gives the chip the counter that all programs of the board move.
bool keep_counter(eeprom *chip, const image_row &row, const options &opts, files *in, std::string *error) {
  constexpr std::array<uint8_t, sizeof(uint32_t)> initial{};
  const auto counter = kept(in, chip_path(opts, "counter", row.bus, row.addr), initial, error);
  if (counter.empty()) return false;
  chip->keep(reinterpret_cast<uint32_t *>(counter.data()));  // at the start of a page
  return true;
}

std::unique_ptr<i2c_device> make_pca8575(const device_row &row, const options &opts, files *, std::string *) {
  return std::make_unique<pca8575>(pins_of(row, opts));
}

std::unique_ptr<i2c_device> make_pca9539(const device_row &row, const options &opts, files *in, std::string *error) {
  const auto registers = kept(in, chip_path(opts, "expander", row.bus, row.addr), pca9539::power_on, error);
  if (registers.empty()) return nullptr;
  auto made = std::make_unique<pca9539>(pins_of(row, opts));
  made->keep(registers.first<pca9539::power_on.size()>());
  return made;
}

// The chip that a fault names by bus and address, or null.
template <typename T, size_t N>
const T *row_at(const std::array<T, N> &rows, const options &opts, const fault &f) {
  const auto *const found =
      std::ranges::find_if(rows, [&](const T &row) { return has(row.families, opts) && f.is_at(row.bus, row.addr); });
  return found == rows.end() ? nullptr : found;
}

bool has_bus(const options &opts, const fault &f) {
  options healthy = opts;
  healthy.faults.clear();
  const auto numbers = i2c_bus_numbers(healthy);
  return !f.has(parm::bus) || std::ranges::find(numbers, f.get(parm::bus)) != numbers.end();
}

bool has_eeprom(const options &opts, const fault &f) {
  return row_at(image_rows, opts, f) != nullptr;
}

bool has_byte(const options &opts, const fault &f) {
  return f.get(parm::offset) < chip_of(*row_at(image_rows, opts, f)).size;
}

bool has_expander(const options &opts, const fault &f) {
  const auto *const row = row_at(device_rows, opts, f);
  return row != nullptr && row->kind == device_kind::expander;
}

bool has_device(const options &opts, const fault &f) {
  return has_eeprom(opts, f) || row_at(device_rows, opts, f) != nullptr;
}

bool has_straps(const options &opts, const fault &) {
  return std::ranges::any_of(device_rows, [&](const auto &row) { return has(row.families, opts) && row.straps < 16; });
}

bool has_other_straps(const options &opts, const fault &f) {
  return f.get(parm::value) != straps_of(opts.family);
}

const image_row *image_of(const options &opts, const fault &f) {
  const auto *const found = std::ranges::find_if(image_rows, [&](const image_row &row) {
    return has(row.families, opts) && row.name != nullptr && row.name == f.word(parm::image);
  });
  return found == image_rows.end() ? nullptr : found;
}

bool has_image(const options &opts, const fault &f) {
  return image_of(opts, f) != nullptr;
}

bool has_block(const options &opts, const fault &f) {
  return image_block_of(image_of(opts, f)->kind, f.word(parm::block)) != nullptr;
}

bool has_block_byte(const options &opts, const fault &f) {
  return f.get(parm::offset) < image_block_of(image_of(opts, f)->kind, f.word(parm::block))->length;
}

// clang-format off
constexpr std::array i2c_need_rows{std::to_array<need_row>({
    {fault_need::i2c_bus,      has_bus,          "the board has no such I2C bus"},
    {fault_need::i2c_device,   has_device,       "the board has no such I2C device"},
    {fault_need::eeprom,       has_eeprom,       "the device is no EEPROM"},
    {fault_need::eeprom_byte,  has_byte,         "the EEPROM ends before this offset"},
    {fault_need::expander,     has_expander,     "the device is no I/O expander"},
    {fault_need::straps,       has_straps,       "the board has no straps"},
    {fault_need::other_straps, has_other_straps, "the straps have this value anyway"},
    {fault_need::sprom,        has_image,        "the board has no such SPROM"},
    {fault_need::sprom_block,  has_block,        "the image has no such block"},
    {fault_need::block_byte,   has_block_byte,   "the block ends before this offset"},
})};
// clang-format on

}  // namespace

std::vector<uint32_t> i2c_bus_numbers(const options &opts) {
  std::vector<uint32_t> numbers;
  for (const auto &row : present(image_rows, opts))
    numbers.push_back(row.bus);
  for (const auto &row : present(device_rows, opts))
    numbers.push_back(row.bus);
  std::ranges::sort(numbers);
  numbers.erase(std::unique(numbers.begin(), numbers.end()), numbers.end());
  for (const auto &f : opts.faults)
    if (f.id == fault_id::i2c_bus_absent) std::erase(numbers, f.get(parm::bus));
  return numbers;
}

std::span<const need_row> i2c_needs() {
  return i2c_need_rows;
}

std::unique_ptr<i2c_board> i2c_board::make(const options &opts, io_port &port, std::string *error) {
  auto board = std::make_unique<i2c_board>();
  if (!keep_port(&port, opts, &board->m_files, error)) return nullptr;
  for (const auto number : i2c_bus_numbers(opts)) {
    const auto device = opts.state + "/dev/i2c-" + std::to_string(number);
    auto &bus = board->m_buses.emplace_back(std::make_unique<i2c_bus>(number, opts));
    bus->take_turns_by(file(sys::keep(sys::open(device.c_str(), O_RDWR | O_CLOEXEC))));
  }

  std::vector<placed_expander> expanders;
  for (const auto &row : present(device_rows, opts)) {
    auto *const bus = board->bus(row.bus);
    if (bus == nullptr) continue;
    auto made = row.make(row, opts, &board->m_files, error);
    if (made == nullptr) return nullptr;
    if (row.kind == device_kind::expander)
      expanders.push_back({row.bus, row.addr, static_cast<const expander *>(made.get())});
    bus->add(row.addr, std::move(made));
  }
  for (const auto &row : present(image_rows, opts)) {
    auto *const bus = board->bus(row.bus);
    if (bus == nullptr || bus->has(row.addr)) continue;
    auto made = std::make_unique<eeprom>(setup_of(row, opts, port, expanders));
    if (!made->open(chip_path(opts, "eeprom", row.bus, row.addr), contents_of(row, opts), error) ||
        !keep_counter(made.get(), row, opts, &board->m_files, error))
      return nullptr;
    bus->add(row.addr, std::move(made));
  }
  return board;
}

i2c_bus *i2c_board::bus(uint32_t number) const {
  const auto found = std::ranges::find_if(m_buses, [&](const auto &bus) { return bus->number() == number; });
  return found == m_buses.end() ? nullptr : found->get();
}

}  // namespace sim

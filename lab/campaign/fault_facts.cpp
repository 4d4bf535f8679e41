#include "lab/campaign/fault_facts.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <map>

#include "lab/base/text.h"
#include "lab/campaign/contents.h"
#include "lab/run/rows.h"
#include "post/dorvan/cards.h"

namespace lab {
namespace {

using sim::fault;
using sim::fault_id;
using sim::parm;
using id = sim::fault_id;

constexpr uint64_t sector_bytes = 0x20000;
constexpr uint32_t nvram_count = 3;
constexpr uint64_t first_nvram_bar = 2;
constexpr uint64_t nvram_half = 0x4000;     // bytes from here on are not tested
constexpr uint64_t nvram_top_line = 14;     // selects them
constexpr uint64_t flash_half_line = 16;    // selects the half of a sector
constexpr uint64_t first_sector_line = 17;  // selects the sector, as all above
constexpr uint64_t last_sector = 511;
constexpr uint64_t high_test_offset = 0xCAFE;
constexpr auto &pcie_row = rows.back();
constexpr int flash_test = 10;

// ---- conditions on what a run left

// Whether one of the two broken lines, or both, fit.
bool any_line(const fault &f, bool (*fits)(uint64_t line)) {
  return fits(f.get(parm::line)) || (f.find(parm::other) && fits(f.get(parm::other)));
}

// The cell that a fault changes: the victim of two.
uint64_t changed_offset(const fault &f) {
  const auto offset = f.find(parm::victim).value_or(f.get(parm::offset));
  return f.find(parm::sector).value_or(0) * sector_bytes + offset;
}

const memory_change *change_of(const aftermath &at, std::string_view memory) {
  const auto found = std::ranges::find(at.changes, memory, &memory_change::memory);
  return found == at.changes.end() ? nullptr : &*found;
}

const memory_change *own_change(const aftermath &at) {
  const auto instance = at.fault.find(parm::instance);
  return change_of(at, instance ? "nvram" + std::to_string(*instance) : "flash");
}

const memory_change *change_in_one_sector(const aftermath &at) {
  const auto *const change = change_of(at, "flash");
  return change != nullptr && change->first / sector_bytes == change->last / sector_bytes ? change : nullptr;
}

bool no_row_began(const aftermath &at) {
  return at.log == nullptr || std::ranges::none_of(at.log->rows, &row_log::started);
}

bool is_flash_tested(const aftermath &at) {
  const auto row = *row_of_test(flash_test);
  return at.log != nullptr && at.log->rows[row].ended && !at.log->devices[first_case(row)].failed;
}

bool is_asserted_at_start(const aftermath &at) {
  return no_row_began(at) && (at.output.find(": Assertion `") != std::string_view::npos ||
                              at.output.find("## Assert:") != std::string_view::npos);
}

bool is_taken_for_p1(const aftermath &at) {
  return at.run.board.revision == "P0";
}

bool was_killed(const aftermath &at) {
  return at.status == 128 + 9;
}

bool is_not_expected(const aftermath &at) {
  return std::ranges::none_of(expected_functions(at.run.board), [&](const auto &one) {
    return one.bus == at.fault.get(parm::bus) && one.dev == at.fault.get(parm::dev) &&
           one.func == at.fault.get(parm::func);
  });
}

bool is_register_unused(const aftermath &at) {
  return at.fault.get(parm::bar) < first_nvram_bar;
}

bool is_last_register(const aftermath &at) {
  return at.fault.get(parm::bar) == 5;
}

bool is_link_test(const aftermath &at) {
  return at.fault.word(parm::test) == "link";
}

bool code_has_zero(const aftermath &at) {
  return std::to_string(at.fault.get(parm::code, 1)).find('0') != std::string::npos;
}

bool is_untested_port(const aftermath &at) {
  const auto *const card = dorvan_card(static_cast<uint16_t>(at.run.board.card));
  const auto port = at.fault.word(parm::port);
  return card != nullptr &&
         std::ranges::any_of(card->untested_ports, [&](int number) { return port == "eth" + std::to_string(number); });
}

bool is_untested_instance(const aftermath &at) {
  const auto *const card = dorvan_card(static_cast<uint16_t>(at.run.board.card));
  const auto instance =
      at.fault.find(parm::bar) ? at.fault.get(parm::bar) - first_nvram_bar : at.fault.get(parm::instance);
  return card != nullptr && instance >= card->nvram_instances && instance < nvram_count;
}

// The test drives the top line low: a short in which 0 wins pulls the other line low, too, which it must see.
bool is_in_upper_half(const aftermath &at) {
  const auto &f = at.fault;
  if (f.find(parm::line))
    return any_line(f, [](uint64_t line) { return line == nvram_top_line; }) && f.find(parm::wins).value_or(1) == 1;
  return f.get(parm::offset) >= nvram_half || changed_offset(f) >= nvram_half;
}

bool is_changed(const aftermath &at) {
  return own_change(at) != nullptr;
}

// Only the words of the address test, one for each line, are read again and again.
bool is_read_once(const aftermath &at) {
  const auto word = at.fault.get(parm::offset) & ~uint64_t{1};
  return !at.fault.find(parm::instance) || (word & (word - 1)) != 0;
}

bool comes_and_goes(const fault &f) {
  return f.find(parm::nth) != 1 || f.find(parm::times) != 0 || f.find(parm::p) != sim::fault_trigger::certain;
}

bool is_changed_now_and_then(const aftermath &at) {
  return comes_and_goes(at.fault) && is_changed(at);
}

bool selects_sectors(const aftermath &at) {
  const auto &f = at.fault;
  const auto within = [](uint64_t line) { return line < first_sector_line; };
  return !comes_and_goes(f) && !any_line(f, within);
}

bool selects_half_a_sector(const aftermath &at) {
  return any_line(at.fault, [](uint64_t line) { return line == flash_half_line; });
}

bool is_in_no_tested_sector(const aftermath &at) {
  for (const auto key : {parm::offset, parm::victim})
    if (const auto offset = at.fault.find(key); offset && !touches_sector(*offset / sector_bytes)) return true;
  const auto sector = at.fault.find(parm::sector);
  return sector && !touches_sector(*sector);
}

// What POST writes to a word of the flash and compares, nothing for a word that it does not compare.
std::optional<uint16_t> compared_word(uint64_t offset) {
  const auto sector = offset / sector_bytes;
  const auto at = offset % sector_bytes;
  const auto line = [](uint64_t lines) { return static_cast<uint16_t>(std::countr_zero(lines)); };
  if (sector == 6) {
    const auto one = static_cast<uint16_t>(1U << (at / 2 % 16));
    return at < 0x40 ? std::optional(at < 0x20 ? one : static_cast<uint16_t>(~one)) : std::nullopt;
  }
  if (sector != 0)
    return at == high_test_offset && touches_sector(sector)
               ? std::optional(sector == last_sector ? 0xFFFF : static_cast<uint16_t>(sector))
               : std::nullopt;
  if (at == high_test_offset) return 512;
  if (std::popcount(at) == 1) return static_cast<uint16_t>(line(at) - 1);
  const auto clear = 0x1FFFE & ~at;
  if (std::popcount(clear) <= 1) return static_cast<uint16_t>(16 + (clear == 0 ? 0 : line(clear)));
  return std::nullopt;
}

// What disturbs a cell of the flash programs it, so that only an erased one shows it.
bool is_compared_too_little(const aftermath &at) {
  const auto offset = changed_offset(at.fault);
  const auto word = compared_word(offset & ~uint64_t{1});
  if (!word) return true;
  const bool any_level = at.fault.id == id::flash_cell_stuck || at.fault.id == id::flash_cell_transition ||
                         at.fault.id == id::flash_cell_read_wrong;
  const auto bit = at.fault.find(parm::vbit).value_or(at.fault.get(parm::bit)) + 8 * (offset % 2);
  return !any_level && (*word >> bit & 1) == 0;
}

bool is_word_unread(const aftermath &at) {
  const auto word = at.fault.get(parm::word);
  return word != 0x20 && word != 0x21 && word != 0x24 && word != 0x25;
}

bool is_damage_in_one_sector(const aftermath &at) {
  return change_in_one_sector(at) != nullptr;
}

bool is_last_sector_lost(const aftermath &at) {
  const auto *const change = change_in_one_sector(at);
  return change != nullptr && change->first / sector_bytes == last_sector;
}

// ---- the reasons

// clang-format off
constexpr reason no_driver{reason::ended, "", is_asserted_at_start,
    "a driver could not reach its device and ended the program before the first row: no verdict, which is no PASS"};
constexpr reason no_clock{reason::ended, "_init_ptu: Assertion `", no_row_began,
    "without a clock rate nothing can be timed, and the program ends before the first row: no verdict, which is no PASS"};
constexpr reason no_lock{reason::ended, "lock_create(): error creating lock: /var/lock/", nullptr,
    "the driver of a memory could not create its lock, and an assertion ended the program: no verdict, which is no PASS"};
constexpr reason no_power{reason::ended, "", was_killed,
    "without power there is no verdict, which is no PASS"};

constexpr reason no_directory{reason::blamed, "Could not open file post_results.txt", nullptr,
    "POST has no test of the directory of records and logs; the ports fail because their log is missing"};
constexpr reason no_identity{reason::blamed, "Error in opening /dev/sprom for reading", nullptr,
    "POST has no test of the identification driver; the rows that need it fail"};

constexpr reason revision_unread{reason::blamed, "err: could not read sup sprom", is_taken_for_p1,
    "POST cannot read the board's revision either, takes it for P1, and misses PCI functions that a P0 does not have"};

constexpr reason lock_is_free_later{reason::harmless, "", nullptr, "POST waits until the other process releases the lock"};
constexpr reason lock_stays_held{reason::hung, "", nullptr, "POST waits as long as another process holds the lock"};
constexpr reason smbus_is_enough{reason::harmless, "", nullptr, "POST reads the EEPROM by SMBus transfers"};

constexpr reason no_device_for_function{reason::missed, "(bus:{bus:02X}, dev:{dev:02X}, func:{func:02X}", nullptr,
    "POST prints that the function is missing, but only the first six functions of the card's list decide the verdict"};
constexpr reason function_not_expected{reason::missed, "", is_not_expected,
    "the function is not in the list that POST expects of this card"};
constexpr reason register_unused{reason::missed, "", is_register_unused,
    "POST does not use what this register maps"};
constexpr reason memory_untested{reason::missed, "", is_untested_instance,
    "the test of this card leaves out the NVRAM that this register maps"};
constexpr reason no_upper_half{reason::missed, "", is_last_register,
    "the last register has no upper half, and POST takes its address as it is"};
constexpr reason card_unknown{reason::missed, "Invalid card detected", nullptr,
    "the driver refused the card index; a row that does not get the index compares nothing and passes"};
constexpr reason rate_believed{reason::missed, "", nullptr,
    "POST has no other clock to compare the rate with; it only changes how long the drivers wait"};
constexpr reason link_ignored{reason::missed, "", is_link_test,
    "a link sub-test that fails does not count"};
constexpr reason digit_zero{reason::missed, "", code_has_zero,
    "a sub-test passes if its result contains the digit 0"};
constexpr reason port_untested{reason::not_fired, "", is_untested_port,
    "the test of this card leaves out this port"};
constexpr reason image_read_again{reason::missed, "err: could not read sup sprom", nullptr,
    "only the reading of the image at the start failed; the SEEPROM row reads it again"};

constexpr reason instance_untested{reason::not_fired, "", is_untested_instance,
    "the test of this card leaves out this NVRAM"};
constexpr reason upper_half{reason::missed, "", is_in_upper_half,
    "POST saves the upper half of each NVRAM and writes it back, but does not test it"};
constexpr reason upper_half_kept{reason::not_fired, "", is_in_upper_half,
    "POST only saves and writes back the upper half of each NVRAM, so that no cell there changes"};
constexpr reason read_once{reason::missed, "", is_read_once,
    "POST never reads this cell twice without a write between, so the wrong level that a read leaves is never seen"};
constexpr std::string_view acts_unchecked = "it acted while the contents were saved or written back, which nothing checks";
constexpr reason written_back{reason::missed | reason::damaged_unseen | reason::damaged, "", is_changed_now_and_then,
    acts_unchecked};
// Faults that act when cells are written, also when they are written back at the end.
constexpr reason disturbed{reason::missed | reason::damaged_unseen | reason::damaged, "", is_changed, acts_unchecked};
constexpr reason now_and_then{reason::missed | reason::damaged_unseen, "", is_changed_now_and_then, acts_unchecked};
constexpr reason sectors_alias{reason::missed, "", selects_sectors,
    "the test of a sector accesses no other sector, so it cannot notice that two addresses select the same sector"};
constexpr reason half_a_sector{reason::damaged_unseen, "", selects_half_a_sector,
    "no two words of the address test differ only in A16; an erase takes the whole sector, but saving and writing back "
    "reach half of it"};
constexpr reason sector_untested{reason::not_fired, "", is_in_no_tested_sector,
    "POST touches 19 of the 512 sectors, and not this one"};
constexpr reason few_words{reason::missed, "", is_compared_too_little,
    "POST compares a few words of each tested sector, each with one value, and none of them shows the fault of this cell"};
constexpr reason waits_suffice{reason::missed, "", is_flash_tested,
    "POST takes only its waiting times from the query, and they were still long enough"};
constexpr reason slow_but_in_time{reason::missed, "", is_flash_tested,
    "the chip was slow, but within the time that the driver waits"};
constexpr reason word_unread{reason::not_fired, "", is_word_unread,
    "POST takes only its waiting times from the query, and not this word"};
constexpr reason last_round{reason::missed, "", is_last_sector_lost,
    "POST tests sector 511 with the value of an erased word, and does not compare what it writes back"};
constexpr reason not_reset{reason::damaged, "Reached the max timeout and DQ5 bit is set", is_damage_in_one_sector,
    "once the chip has given up (DQ5), the driver does not reset it; the chip accepts no command, and the sector under test "
    "is not written back"};
constexpr reason written_elsewhere{reason::damaged, "Reached the max timeout and DQ5 bit is set", is_changed,
    "what is written goes to other addresses, and once the chip has given up (DQ5) nothing is written back"};
constexpr reason not_waited{reason::damaged, "Reached the max timeout but DQ5 bit not set", is_damage_in_one_sector,
    "the driver gives up waiting for the chip, and the sector under test is not written back"};

constexpr std::string_view any_port = "gige.0 gige.1 gige.2 gige.3";
constexpr std::string_view any_sprom = "seeprom.0 seeprom.1";
constexpr std::string_view own_instance = " NVRAM {instance}";
constexpr std::string_view own_function = "(bus:{bus:02X}, dev:{dev:02X}, func:{func:02X}";
constexpr std::string_view see_code = "?";  // devices_of() has them
constexpr std::string_view no_ports = "only boards of other families use I/O ports";
constexpr std::string_view no_expanders = "only boards of other families have I/O expanders";
constexpr std::string_view no_eeprom_writes = "POST never writes an EEPROM";

constexpr auto short_test = run_mode::short_test;
constexpr auto no_flash = run_mode::no_flash;
constexpr auto full = run_mode::full;
constexpr auto nothing = own_damage::nothing;
constexpr auto lines = own_damage::lines;
constexpr auto cells = own_damage::cells;
constexpr auto sector = own_damage::sector;

constexpr std::array fact_rows{std::to_array<fault_facts>({
    // fault                           mode        destroys    devices     output         reasons                                          left out, because
    {id::post_missing,                  short_test, nothing,    "",         "",            {&no_directory}},
    {id::pci_list_unreadable,           short_test, nothing,    "",         "",            {&no_driver}},
    {id::pci_missing,                   short_test, nothing,    see_code,   own_function,  {&no_device_for_function, &function_not_expected, &no_driver}},
    {id::pci_wrong_id,                  short_test, nothing,    see_code,   own_function,  {&no_device_for_function, &function_not_expected, &no_driver}},
    {id::bar_missing,                   short_test, nothing,    see_code,   "",            {&register_unused, &no_driver}},
    {id::bar_64bit,                     short_test, nothing,    see_code,   "",            {&register_unused, &no_upper_half, &no_driver}},
    {id::bar_io,                        full,       nothing,    see_code,   "",            {&register_unused, &memory_untested, &no_driver}},
    {id::sprom_absent,                  short_test, nothing,    "",         "",            {&no_identity}},
    {id::sprom_refuse,                  short_test, nothing,    "",         "",            {&card_unknown}},
    {id::cpuinfo_missing,               no_flash,   nothing,    "",         "",            {&no_clock}},
    {id::cpuinfo_no_rate,               no_flash,   nothing,    "",         "",            {&no_clock}},
    {id::cpuinfo_rate,                  no_flash,   nothing,    "",         "",            {&rate_believed, &no_clock}},
    {id::lock_dir_missing,              no_flash,   nothing,    "",         "",            {&no_lock}},
    {id::lock_dir_read_only,            no_flash,   nothing,    "",         "",            {&no_lock}},
    {id::lock_held,                     no_flash,   nothing,    "",         "",            {&lock_is_free_later, &lock_stays_held}},
    {id::mem_absent,                    short_test, nothing,    "",         "",            {&no_driver}},
    {id::mem_mmap_refused,              short_test, nothing,    "",         "",            {&no_driver}},
    {id::iopl_refused,                  short_test, nothing,    "",         "",            {},                                              no_ports},
    {id::port_stuck,                    short_test, nothing,    "",         "",            {},                                              no_ports},

    {id::ethtool_missing,               short_test, nothing,    any_port,   "",            {}},
    {id::ethtool_silent,                short_test, nothing,    see_code,   "",            {&port_untested}},
    {id::ethtool_fail,                  no_flash,   nothing,    see_code,   "ethtool -t {port}", {&link_ignored, &digit_zero, &port_untested}},

    {id::i2c_bus_absent,                short_test, nothing,    any_sprom,  "",            {&revision_unread}},
    {id::i2c_smbus_only,                short_test, nothing,    "",         "",            {&smbus_is_enough}},
    {id::i2c_absent,                    short_test, nothing,    any_sprom,  "",            {&image_read_again, &revision_unread}},
    {id::i2c_fail,                      short_test, nothing,    any_sprom,  "",            {&image_read_again, &revision_unread}},
    {id::eeprom_corrupt,                short_test, nothing,    see_code,   "",            {&image_read_again, &revision_unread}},
    {id::sprom_corrupt,                 short_test, nothing,    "seeprom.{image:n}", "",   {&image_read_again, &revision_unread}},
    {id::eeprom_protected,              short_test, nothing,    "",         "",            {},                                              no_eeprom_writes},
    {id::eeprom_busy,                   short_test, nothing,    "",         "",            {},                                              no_eeprom_writes},
    {id::eeprom_power_cut,              short_test, nothing,    "",         "",            {},                                              no_eeprom_writes},
    {id::eeprom_dies,                   short_test, nothing,    "",         "",            {},                                              no_eeprom_writes},
    {id::straps,                        short_test, nothing,    "",         "",            {},                                              no_expanders},
    {id::pin_stuck,                     short_test, nothing,    "",         "",            {},                                              no_expanders},

    {id::nvram_data_stuck,              no_flash,   lines,      "nvram.0",  own_instance,  {&instance_untested, &written_back}},
    {id::nvram_data_short,              no_flash,   lines,      "nvram.0",  own_instance,  {&instance_untested, &written_back}},
    {id::nvram_data_floating,           no_flash,   lines,      "nvram.0",  own_instance,  {&instance_untested, &written_back}},
    {id::nvram_addr_stuck,              no_flash,   nothing,    "nvram.0",  own_instance,  {&instance_untested, &upper_half, &written_back}},
    {id::nvram_addr_short,              no_flash,   nothing,    "nvram.0",  own_instance,  {&instance_untested, &upper_half, &written_back}},
    {id::nvram_cell_stuck,              no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &written_back}},
    {id::nvram_cell_transition,         no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &disturbed}},
    {id::nvram_cell_read_disturb,       no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &written_back}},
    {id::nvram_cell_read_deceptive,     no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &read_once, &written_back}},
    {id::nvram_cell_read_wrong,         no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &written_back}},
    {id::nvram_cell_write_disturb,      no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &disturbed}},
    {id::nvram_cell_coupled,            no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &disturbed}},
    {id::nvram_cell_coupled_read,       no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &disturbed}},
    {id::nvram_cell_coupled_write,      no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &disturbed}},
    {id::nvram_cell_coupled_state,      no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &disturbed}},
    {id::nvram_cell_coupled_transition, no_flash,   cells,      "nvram.0",  own_instance,  {&instance_untested, &upper_half, &upper_half_kept, &disturbed}},
    {id::nvram_power_cut,               no_flash,   nothing,    "",         "",            {&no_power},                                     "a run without power has no verdict; docs/power-cut.md shows what it loses"},

    {id::flash_data_stuck,              full,       lines,      "obfl.0",   "",            {&now_and_then, &not_reset, &not_waited}},
    {id::flash_data_short,              full,       lines,      "obfl.0",   "",            {&now_and_then, &not_reset, &not_waited}},
    {id::flash_data_floating,           full,       lines,      "obfl.0",   "",            {&now_and_then, &not_reset, &not_waited}},
    {id::flash_addr_stuck,              full,       nothing,    "obfl.0",   "",            {&sectors_alias, &half_a_sector, &not_reset, &written_elsewhere, &not_waited}},
    {id::flash_addr_short,              full,       nothing,    "obfl.0",   "",            {&sectors_alias, &half_a_sector, &not_reset, &written_elsewhere, &not_waited}},
    {id::flash_cell_stuck,              full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_cell_transition,         full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_cell_read_disturb,       full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_cell_read_deceptive,     full,       cells,      "obfl.0",   "",            {&sector_untested, &read_once, &not_reset, &not_waited}},
    {id::flash_cell_read_wrong,         full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_cell_write_disturb,      full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_cell_coupled,            full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_cell_coupled_read,       full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_cell_coupled_write,      full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_cell_coupled_state,      full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_cell_coupled_transition, full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_silent,                  full,       nothing,    "obfl.0",   "",            {&not_reset, &not_waited}},
    {id::flash_cfi,                     full,       nothing,    "obfl.0",   "",            {&waits_suffice, &word_unread, &not_reset, &not_waited}},
    {id::flash_slow,                    full,       nothing,    "obfl.0",   "",            {&slow_but_in_time, &not_reset, &not_waited}},
    {id::flash_erase_hangs,             full,       nothing,    "obfl.0",   "",            {&sector_untested, &not_reset, &not_waited}},
    {id::flash_program_hangs,           full,       sector,     "obfl.0",   "",            {&sector_untested, &not_reset, &not_waited}},
    {id::flash_erase_ignored,           full,       sector,     "obfl.0",   "",            {&sector_untested, &not_reset, &not_waited}},
    {id::flash_program_ignored,         full,       sector,     "obfl.0",   "",            {&sector_untested, &last_round, &not_reset, &not_waited}},
    {id::flash_erase_leaves,            full,       cells,      "obfl.0",   "",            {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_program_clears,          full,       own_damage::sector_bit, "obfl.0", "",  {&sector_untested, &few_words, &not_reset, &not_waited}},
    {id::flash_power_cut,               full,       sector,     "",         "",            {&no_power}},
})};
// clang-format on

constexpr bool in_order() {
  for (size_t i = 0; i < fact_rows.size(); ++i)
    if (fact_rows[i].id != static_cast<fault_id>(i)) return false;
  return fact_rows.back().id == fault_id::flash_power_cut;
}
static_assert(in_order(), "a row for each fault, in the order of their enumeration");

constexpr std::array limit_sentences{std::to_array<std::string_view>({
    "The short test (`-s`) leaves out NVRAM and flash, and of the Ethernet controllers all but the link sub-test.",
    "Of the 512 sectors of the flash 19 are tested: nothing is known of the cells of the others.",
    "A first failure hides later ones of the same NVRAM instance or of the flash.",
})};

// "{KEY}" becomes the fault's value as it is written, "{KEY:n}" its number, "{KEY:02X}" two hexadecimal digits.
std::string fill_in(std::string_view pattern, const fault &f) {
  return fill_fields(pattern, [&](std::string_view key, std::string_view form) -> std::string {
    const auto *const row = f.row().find(key);
    const auto value = row == nullptr ? std::nullopt : f.find(row->key);
    if (!value) return "";
    if (form.empty()) return row->print(*value);
    char number[24];
    (void)std::snprintf(number, sizeof number, form == "02X" ? "%02llX" : "%llu",
                        static_cast<unsigned long long>(*value));
    return number;
  });
}

void append_item(std::string *list, const std::string &item) {
  *list += (list->empty() ? "" : ", ") + item;
}

// The device that fails with a PCI function; none if no device does.
std::string device_of_function(const fault &f, const board_setting &board) {
  const auto functions = expected_functions(board);
  for (size_t i = 0; i < functions.size(); ++i) {
    const auto &one = functions[i];
    if (one.bus != f.get(parm::bus) || one.dev != f.get(parm::dev) || one.func != f.get(parm::func)) continue;
    const auto device = dorvan_pci_device(i);
    if (device < pcie_row.parts.size()) return std::string(pcie_row.key) + "." + std::to_string(device);
  }
  return "";
}

// Of the rows that have no devices of their own.
std::string devices_of(const fault &f, const board_setting &board) {
  if (f.id == id::pci_missing || f.id == id::pci_wrong_id) return device_of_function(f, board);
  if (f.row().part == sim::fault_part::ethernet) {
    const auto port = f.find(parm::port);
    return port ? "gige." + std::to_string(*port) : std::string(any_port);
  }
  if (f.id == id::eeprom_corrupt) return f.get(parm::offset) < 0x1000 ? "seeprom.0" : "seeprom.1";
  const auto bar = f.find(parm::bar).value_or(0);
  return bar < first_nvram_bar ? "" : bar == 5 ? "obfl.0" : "nvram.0";
}

std::string untested_ports(const dorvan_card_t &card) {
  std::string names;
  for (const int port : card.untested_ports)
    append_item(&names, "eth" + std::to_string(port));
  return names;
}

std::string untested_nvrams(const dorvan_card_t &card) {
  std::string names;
  for (uint32_t i = card.nvram_instances; i < nvram_count; ++i)
    append_item(&names, "NVRAM " + std::to_string(i));
  return names;
}

// What some cards pass without a test; cards with the same parts in one sentence.
std::vector<std::string> untested_parts() {
  std::vector<std::string> sentences;
  for (const auto parts_of : {untested_ports, untested_nvrams}) {
    std::map<std::string, std::string> cards_by_parts;
    for (const auto &card : dorvan_cards)
      append_item(&cards_by_parts[parts_of(card)], std::to_string(card.card_index));
    cards_by_parts.erase("");
    for (const auto &[parts, cards] : cards_by_parts)
      sentences.push_back("Not tested on cards " + cards + ": " + parts + ".");
  }
  return sentences;
}

int ending_of(const aftermath &at) {
  switch (at.end) {
    case outcome::missed:
      return reason::missed;
    case outcome::damaged:
      return at.noticed ? reason::damaged : reason::damaged_unseen;
    case outcome::ended:
      return reason::ended;
    case outcome::blamed:
      return reason::blamed;
    case outcome::not_fired:
      return reason::not_fired;
    case outcome::hung:
      return reason::hung;
    case outcome::harmless:
      return reason::harmless;
    default:
      return 0;
  }
}

}  // namespace

const fault_facts &facts_of(fault_id id) {
  return fact_rows[static_cast<size_t>(id)];
}

bool is_harmless(fault_id id) {
  return std::ranges::any_of(facts_of(id).reasons,
                             [](const reason *one) { return one != nullptr && (one->on & reason::harmless) != 0; });
}

std::optional<fault> fault_of(const run_item &run) {
  std::string ignored;
  return run.fault.empty() ? std::nullopt : sim::fault_parse(run.fault, &ignored);
}

std::span<const pci_dev_tbl_entry> expected_functions(const board_setting &board) {
  const auto *const card = dorvan_card(static_cast<uint16_t>(board.card));
  if (card == nullptr) return {};
  return dorvan_pci_functions(*card, board.revision == "P0" ? 0 : 1);
}

expectation expectation_of(const fault &f, const board_setting &board) {
  const auto &facts = facts_of(f.id);
  const auto devices = facts.devices == see_code ? devices_of(f, board) : fill_in(facts.devices, f);
  const auto words = words_of(devices);
  const auto bar = f.id == id::bar_io || f.id == id::bar_missing || f.id == id::bar_64bit ? f.get(parm::bar) : 0;
  const bool nvram = bar >= first_nvram_bar && bar < first_nvram_bar + nvram_count;
  return {{words.begin(), words.end()},
          nvram ? " NVRAM " + std::to_string(bar - first_nvram_bar) : fill_in(facts.text, f)};
}

std::string_view reason_of(const aftermath &at) {
  const auto ending = ending_of(at);
  for (const auto *const one : facts_of(at.fault.id).reasons) {
    if (one == nullptr) break;
    if ((one->on & ending) == 0 || at.output.find(fill_in(one->text, at.fault)) == std::string_view::npos) continue;
    if (one->holds == nullptr || one->holds(at)) return one->why;
  }
  return "";
}

bool touches_sector(uint64_t number) {
  const auto high_line = [](uint64_t bits) { return bits >= 2 && std::has_single_bit(bits); };
  return number == 0 || number == 6 || number == last_sector || high_line(number) || high_line(last_sector - number);
}

std::vector<std::string> limits_of_a_pass() {
  std::vector<std::string> sentences = untested_parts();
  sentences.insert(sentences.end(), limit_sentences.begin(), limit_sentences.end());
  return sentences;
}

}  // namespace lab

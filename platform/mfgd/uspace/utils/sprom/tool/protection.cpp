#include "platform/mfgd/uspace/utils/sprom/tool/protection.h"

#include <stdlib.h>

#include <bit>
#include <optional>

#include "platform/mfgd/uspace/utils/sprom/sprom_api.h"
#include "platform/mfgd/uspace/utils/sprom/tool/device.h"
#include "platform/mfgd/uspace/utils/sprom/tool/output.h"

namespace tool {
namespace {

// Read by the library at each call.
constexpr const char *change_bits_variable = "DIAG_HW_CHANGE_BITS";

}  // namespace

protection_t protection_of(const entry_t &entry) {
  const sprom_wiring_t wiring = wiring_of(entry);
  if (wiring.by == sprom_wiring_t::NONE) return {protect_state::none, 0};
  tell_step("%s: looking at %s", entry.sprom->name, protector_text(entry).c_str());
  const int32_t result = sprom_is_protected(&wiring);
  if (result >= 0) return {result != 0 ? protect_state::on : protect_state::off, 0};
  return {is_no_answer(result) ? protect_state::absent : protect_state::unknown, result};
}

std::string protector_text(const entry_t &entry) {
  const sprom_wiring_t wiring = wiring_of(entry);
  switch (wiring.by) {
    case sprom_wiring_t::NONE:
      break;
    case sprom_wiring_t::PORT:
      return "bit 27 of I/O port 0x50c";
    case sprom_wiring_t::PIN:
      return "pin " + std::to_string(std::countr_zero(wiring.pin)) + " of " + device_text(*wiring.expander->dev);
  }
  return "";
}

bool restore_protection(const entry_t &entry) {
  const std::string label = label_of(entry);
  const std::string where = protector_text(entry);
  tell_step("%s: switching the write protection on: %s", entry.sprom->name, where.c_str());
  const int32_t result = entry.sprom->wd();
  if (result < 0) {
    complain("%s: the write protection (%s) cannot be switched on: %s", label.c_str(), where.c_str(),
             error_text(result).c_str());
    return false;
  }
  const protection_t now = protection_of(entry);
  if (now.state == protect_state::on) return true;
  if (now.state == protect_state::off) {
    complain("%s: the write protection (%s) was switched on, but stays off", label.c_str(), where.c_str());
  } else {
    complain("%s: whether the write protection (%s) is on cannot be told: %s", label.c_str(), where.c_str(),
             error_text(now.error).c_str());
  }
  return false;
}

std::string other_pin_hint(const entry_t &entry) {
  const auto supervisor = find_sprom(*entry.family, "SUPERVISOR");
  uint64_t bits = 0;
  if (!supervisor || sprom_get_hw_change(supervisor->sprom, &bits) < 0) return "";
  const char *const variable = getenv(change_bits_variable);
  const std::optional<std::string> kept = variable == nullptr ? std::nullopt : std::optional<std::string>{variable};
  const std::string told = protector_text(entry);
  (void)setenv(change_bits_variable, std::to_string(bits).c_str(), 1);
  const std::string own = protector_text(entry);
  if (kept) {
    (void)setenv(change_bits_variable, kept->c_str(), 1);
  } else {
    (void)unsetenv(change_bits_variable);
  }
  if (own == told) return "";
  return "the board's hardware change bits are " + std::to_string(bits) + ", by which its protect pin is " + own +
         " and not " + told + ": " + change_bits_variable + "=" + std::to_string(bits) + " selects it";
}

}  // namespace tool

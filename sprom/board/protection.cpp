#include "sprom/board/protection.h"

#include <bit>

#include "sprom/base/output.h"
#include "sprom/board/device.h"

namespace tool {

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
    complain("%s: whether the write protection (%s) is on cannot be read: %s", label.c_str(), where.c_str(),
             error_text(now.error).c_str());
  }
  return false;
}

}  // namespace tool

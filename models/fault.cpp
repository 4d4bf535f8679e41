#include "models/fault.h"

namespace models {

using sim::parm;

chip_fault chip_fault_of(const fault &f) {
  const auto number = [&f](parm key, uint32_t otherwise = 0) {
    return static_cast<uint32_t>(f.find(key).value_or(otherwise));
  };
  const auto byte = [&](parm key) { return static_cast<uint8_t>(number(key)); };
  const auto level = [&](parm key) { return static_cast<uint8_t>(number(key, either_level)); };
  return {
      .id = f.id,
      .line = byte(parm::line),
      .other = byte(parm::other),
      .wins = byte(parm::wins),
      .commands = number(parm::commands) != 0,
      .level = level(parm::level),
      .vlevel = level(parm::vlevel),
      .bit = byte(parm::bit),
      .vbit = byte(parm::vbit),
      .offset = number(parm::offset),
      .victim = number(parm::victim),
      .sector = number(parm::sector, every_sector),
      .dq5 = number(parm::dq5) != 0,
      .value = static_cast<uint16_t>(number(parm::value)),
      .word = number(parm::word),
      .program = number(parm::program),
      .erase = number(parm::erase),
      .cause = &f,
  };
}

}  // namespace models

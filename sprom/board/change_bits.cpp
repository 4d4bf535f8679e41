#include "sprom/board/change_bits.h"

#include <stdlib.h>

#include <algorithm>
#include <bit>

#include "platform/mfgd/uspace/utils/sprom/sprom_pellin.h"
#include "sprom/board/target.h"

namespace tool {
namespace {

// Read by the library at each call.
constexpr const char *variable = "DIAG_HW_CHANGE_BITS";

bool has_two_pins(const entry_t &entry) {
  return wiring_of(entry).expander == &pca9539_mezz_acc;
}

// The change bits in the supervisor's image, which are worth what the checksum of their block says.
exit_code read_change_bits(const options_t &options, const entry_t &entry, uint64_t &bits, std::string &doubt) {
  const kind_t &kind = *kind_by_type(SPROM_TYPE_SUP);
  const target_t supervisor{.kind = &kind, .entry = find_sprom(*entry.family, "SUPERVISOR")};
  image_t image;
  doubt = "its protect pin is not known, since the hardware change bits cannot be read: " + supervisor.label() + ": ";
  const reading_t reading = try_read(options, supervisor, image);
  if (reading.what != presence::present) {
    doubt += failure_text(supervisor, reading);
    return reading.what == presence::busy ? EXIT_BUSY : EXIT_FAILED;
  }
  const field_t &field = *field_by_name(kind, "hw_change_bits");
  for (const sprom_block_t &block : kind.blocks()) {
    if (field.offset < block.offset || field.offset >= block.offset + block.length) continue;
    const verdict_t verdict = verify_block(kind, block, image);
    if (!verdict.is_good) return doubt += verdict.lines.substr(0, verdict.lines.find(".\n")), EXIT_FAILED;
  }
  bits = number_of(field_bytes(field, std::span<const uint8_t>{image}));
  doubt.clear();
  return EXIT_OK;
}

std::string pin_text(uint16_t mask) {
  return "pin " + std::to_string(std::countr_zero(mask));
}

}  // namespace

exit_code settle_protect_pin(const options_t &options, const entry_t &entry, std::string &doubt) {
  if (!has_two_pins(entry)) return EXIT_OK;
  uint64_t bits = 0;
  if (const exit_code code = read_change_bits(options, entry, bits, doubt); code != EXIT_OK) return code;
  const char *const value = getenv(variable);
  if (value == nullptr) {
    if (setenv(variable, std::to_string(bits).c_str(), 1) == 0) return EXIT_OK;
    doubt = std::string{variable} + " cannot be set";
    return EXIT_FAILED;
  }
  const uint16_t meant = wiring_of(entry).pin;
  const uint16_t own = sprom_mezz_pin_pellin(bits);
  if (meant == own) return EXIT_OK;
  doubt = std::string{variable} + "=" + shown(value) + " means " + pin_text(meant) +
          ", but with the hardware change bits " + std::to_string(bits) + " of the supervisor's SPROM it is " +
          pin_text(own);
  return EXIT_FAILED;
}

exit_code check_protect_pin(const options_t &options, const entry_t &entry, const char *what) {
  std::string doubt;
  const exit_code code = settle_protect_pin(options, entry, doubt);
  if (code == EXIT_OK) return code;
  const std::string label = label_of(entry);
  if (code == EXIT_FAILED && options.has(OPT_FORCE)) {
    complain("%s: %s; %s is taken", label.c_str(), doubt.c_str(), pin_text(wiring_of(entry).pin).c_str());
    return EXIT_OK;
  }
  complain("%s: %s: %s%s", label.c_str(), what, doubt.c_str(),
           code == EXIT_BUSY ? "" : ("; --force takes " + pin_text(wiring_of(entry).pin)).c_str());
  return code;
}

}  // namespace tool

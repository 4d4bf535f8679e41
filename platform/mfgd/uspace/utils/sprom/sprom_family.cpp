#include "platform/mfgd/uspace/utils/sprom/sprom_family.h"

#include <errno.h>
#include <sys/io.h>

#include <algorithm>
#include <array>

#include "platform/mfgd/uspace/utils/sprom/pca8575.h"
#include "platform/mfgd/uspace/utils/sprom/pca9539.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_fields.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_verify.h"

namespace {

constexpr uint16_t protect_port = 0x50C;
constexpr uint32_t protect_bit = 1U << 27;

int32_t is_port_high() {
  if (iopl(3) != 0) return -errno;
  const uint32_t value = inl(protect_port);
  (void)iopl(0);  // lowering the level needs no right
  return (value & protect_bit) != 0 ? 1 : 0;
}

// The straps as a number 0 to 3, or the negative result of the second expander.
int32_t read_straps(const sprom_family_t &family) {
  uint16_t pins = 0;
  if (pca9539_rd(family.straps_pca9539, PCA9539_INPUT, sizeof pins, &pins) >= 0) return (pins >> 6) & 3;
  const int32_t result = pca8575_rd(family.straps_pca8575, 0, sizeof pins, &pins);
  return result < 0 ? result : pins >> 14;
}

int32_t read_pair(const smb_acc_t &acc, uint32_t reg, uint16_t *pair) {
  return acc.smb_rd(acc.dev, reg, sizeof *pair, pair);
}

int32_t write_pair(const smb_acc_t &acc, uint32_t reg, uint16_t pair) {
  return acc.smb_wr(acc.dev, reg, sizeof pair, &pair);
}

int32_t make_output(const smb_acc_t &acc, uint16_t mask) {
  uint16_t config = 0;
  const int32_t result = read_pair(acc, PCA9539_CONFIG, &config);
  if (result < 0 || (config & mask) == 0) return result;
  return write_pair(acc, PCA9539_CONFIG, static_cast<uint16_t>(config & ~mask));
}

int32_t drive(const smb_acc_t &acc, uint16_t mask, bool high) {
  uint16_t output = 0;
  const int32_t result = read_pair(acc, PCA9539_OUTPUT, &output);
  if (result < 0) return result;
  return write_pair(acc, PCA9539_OUTPUT, static_cast<uint16_t>(high ? output | mask : output & ~mask));
}

int32_t is_pin_high(const smb_acc_t &acc, uint16_t mask) {
  uint16_t seen = 0;
  int32_t result = read_pair(acc, PCA9539_INPUT, &seen);
  if (result < 0) return result;
  uint16_t inverted = 0;
  result = read_pair(acc, PCA9539_POLARITY, &inverted);
  if (result < 0) return result;
  return ((seen ^ inverted) & mask) != 0 ? 1 : 0;
}

}  // namespace

int32_t sprom_family_probe(const sprom_family_t &family, sprom_t *sup) {
  if (sup->type != SPROM_TYPE_SUP) return -EINVAL;
  const auto platform = static_cast<int32_t>(family.platform);

  int32_t result = read_straps(family);
  if (result < 0 || result == platform) return result;

  std::array<uint8_t, SPROM_SIZE_SUP> image;
  result = sprom_read(sup, image.data());
  if (result < 0) return result;
  result = sprom_verify(sup, image.data());
  if (result < 0) return result;

  const uint16_t index = sprom_get_u16(&image[SPROM_OFF_CARD_INDEX]);
  return std::ranges::find(family.indexes, index) != family.indexes.end() ? platform : -EINVAL;
}

int32_t sprom_is_protected(const sprom_wiring_t *wiring) {
  return wiring->by == sprom_wiring_t::PORT ? is_port_high() : is_pin_high(*wiring->expander, wiring->pin);
}

void sprom_port_protect(bool on) {
  if (iopl(3) != 0) return;
  const uint32_t value = inl(protect_port);
  outl(on ? value | protect_bit : value & ~protect_bit, protect_port);
  (void)iopl(0);  // lowering the level needs no right
}

int32_t sprom_pin_protect_off(const smb_acc_t &acc, uint16_t mask) {
  const int32_t result = make_output(acc, mask);
  if (result < 0) return result;
  return drive(acc, mask, false);
}

int32_t sprom_pin_protect_on(const smb_acc_t &acc, uint16_t mask) {
  return drive(acc, mask, true);
}

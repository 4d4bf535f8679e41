// device.h: the bytes of a SPROM on its chip.
#pragma once

#include <span>

#include "platform/mfgd/uspace/utils/sprom/tool/board.h"
#include "platform/mfgd/uspace/utils/sprom/tool/image.h"
#include "platform/mfgd/uspace/utils/sprom/tool/protection.h"

namespace tool {

// How far reading or writing came.
struct transfer_t {
  int32_t result;  // negative errno value of the failure
  uint32_t byte;   // at which it failed: of what was read, or of the image
};

// Bytes of the chip itself, by its address length.
[[nodiscard]] uint32_t chip_size(const entry_t &entry);

// Reads an image from the device, never from a cache; or so many bytes from the start of the chip.
[[nodiscard]] transfer_t read_image(const entry_t &entry, std::span<uint8_t> image);
[[nodiscard]] transfer_t read_chip(const entry_t &entry, std::span<uint8_t> bytes);

// Whether the result says that nothing answered: no device at the address, or no such bus.
[[nodiscard]] bool is_no_answer(int32_t result);

// What a SPROM is, told by reading it.
enum class presence {
  present,
  absent,   // nothing answers in the slot
  dead,     // what belongs to the board, or to a module that answers, does not; or an answer broke off
  unknown,  // the bus may not be asked
};
const char *presence_word(presence what);
[[nodiscard]] presence presence_of(const entry_t &entry, const transfer_t &read);

// A write with its protection.
struct writing_t {
  size_t planned;  // bytes to write
  size_t done;
  transfer_t transfer;
  int32_t lifted;       // results of the hooks
  int32_t restored;     //
  protection_t before;  // behind the lifting
  protection_t after;   // behind the restoring
};

// Writes what tells one image from the other, in an order that stands a cut at any byte (plan.h), with the protection
// lifted meanwhile; where it is still seen to be on, nothing is written. Shows its progress on a terminal. Signals must
// be held back: see signals.h.
writing_t write_image(const entry_t &entry, const kind_t &kind, std::span<const uint8_t> from,
                      std::span<const uint8_t> to);

}  // namespace tool

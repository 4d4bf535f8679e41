// device.h: the bytes of a SPROM on its chip.
#pragma once

#include <span>

#include "sprom/board/board.h"
#include "sprom/board/protection.h"
#include "sprom/image/image.h"

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

// The state of a SPROM, found by reading it.
enum class presence {
  present,
  absent,   // nothing answers in the slot
  dead,     // what belongs to the board, or to a module that answers, does not; or an answer broke off
  unknown,  // the bus may not be asked
  busy,     // another process has it
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
  protection_t before;  // after the lifting
  protection_t after;   // after the restoring
};

// Writes the bytes in which one content of an EEPROM, from the offset `base` on, differs from another, in an order that
// is safe at any cut (plan.h), with the protection lifted meanwhile; where it is still seen to be on, nothing is
// written. Shows its progress on a terminal. Signals must be held back: see signal_hold.h.
//   images  those in the content, their places in it
writing_t write_bytes(const entry_t &entry, uint32_t base, std::span<const image_place_t> images,
                      std::span<const uint8_t> from, std::span<const uint8_t> to);

}  // namespace tool

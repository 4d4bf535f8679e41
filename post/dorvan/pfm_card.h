// pfm_card.h: the supervisor's card type, from the board's SPROM kernel driver.
#pragma once

#include <stddef.h>
#include <stdint.h>

// Requests of /dev/sprom: direction read, argument size 4, type 0x43.
enum : uint32_t {
  SPROM_IOC_GET_CARD_INDEX = 0x80044314,
  SPROM_IOC_GET_HW_CHANGES = 0x80044317,
};

// Platform type of a card that is not in the table.
enum : uint32_t { PFM_PLATFORM_UNKNOWN = 0xFFFFFFFF };

// What callers of the two queries preset, so that a driver that refuses leaves no known card.
enum : uint16_t { PFM_CARD_UNKNOWN = 0xFFFF };

extern "C" {
// Argument of both requests. The values are the driver's; `answer` is where it stores its 16 bits.
struct sprom_ioctl_req {
  uint32_t field_0;  // 3
  uint8_t field_4;   // 0
  uint8_t field_5;   // 0
  uint16_t field_6;  // 0
  uint16_t field_8;  // 4
  uint8_t field_10;  // 0
  uint8_t field_11;  // 0
  uint16_t *answer;
  uint32_t field_16;  // 0
};

// Reads the card index.
//   card_index  receives it; keeps its value when the driver refuses the request
// Returns 0, or 1 with a message on standard output when /dev/sprom cannot be opened.
[[nodiscard]] uint32_t pfm_get_card_index(uint16_t *card_index);

// As pfm_get_card_index, for the driver's 16-bit hardware change bits.
[[nodiscard]] uint32_t pfm_get_hw_changes_bits(uint16_t *hw_changes);

// Returns the SPROM platform type of a card, PFM_PLATFORM_UNKNOWN if there is none.
[[nodiscard]] uint32_t pfm_get_sprom_platform_type(uint16_t card_index);

// Sends a request to the driver, without a message.
//   answer  receives the 16 bits; keeps its value when the driver refuses the request
// Returns whether /dev/sprom could be opened.
[[nodiscard]] bool pfm_ask_driver(uint32_t request, uint16_t *answer);
}

static_assert(offsetof(sprom_ioctl_req, field_8) == 8);
static_assert(sizeof(void *) != 4 || (offsetof(sprom_ioctl_req, answer) == 12 && sizeof(sprom_ioctl_req) == 20));

// target.h: what a command works on: a SPROM of the board, or an image in a file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sprom/base/options.h"
#include "sprom/base/output.h"
#include "sprom/board/chip_lock.h"
#include "sprom/board/device.h"
#include "sprom/image/image_file.h"

namespace tool {

struct target_t {
  const kind_t *kind = nullptr;
  std::optional<entry_t> entry;  // empty for a file
  std::string path = {};         // of a file
  image_file_t file = {};
  size_t base = 0;      // of the image in the file
  bool is_raw = false;  // the SPROM's whole EEPROM is meant, with any contents

  // What is read and written: its bytes, its offset in the EEPROM, and the images in it.
  [[nodiscard]] uint32_t size() const;
  [[nodiscard]] uint32_t start() const;
  [[nodiscard]] std::vector<image_place_t> images() const;

  // The SPROM's or the file's name, and that with where it is, for messages.
  [[nodiscard]] std::string name() const;
  [[nodiscard]] std::string label() const;
};

// The family that --family names or the board shows. Returns EXIT_OK, or another status after a message.
exit_code find_family(const options_t &options, const family_t *&family);

// The kind with a layout that an argument names; null after a message.
const kind_t *kind_argument(const std::string &name);

// Finds the SPROM of that name, or the unit at --bus and --addr, where the name is its kind, or the image in --file,
// where the name is a kind and may be left out. With --raw it is the whole EEPROM of a SPROM, which may then have no
// layout, as with --hex if it has none. Where a dump holds several images and none is named, find_targets takes all,
// those of unknown kind too, and find_target complains. Return EXIT_OK, or another status after a message.
exit_code find_target(const options_t &options, const std::string *name, target_t &target);
exit_code find_targets(const options_t &options, const std::string *name, std::vector<target_t> &targets);

// Finds the only SPROM of a kind, or the only image of it in --file.
exit_code find_only(const options_t &options, const kind_t &kind, target_t &target);

// What reading a target yields beside the image.
struct reading_t {
  presence what;  // a file is present
  transfer_t transfer;
  std::string reason;  // why it was not asked; then nothing was transferred
};

// Reads the image, or only its first byte, under the lock of its EEPROM, for which it waits. Without a place for the
// lock it is read after a warning. If the service knows only identities, a SPROM that a read would write to is not
// accessed unless --force is given, and a warning is printed for one that it may confuse with another.
reading_t try_read(const options_t &options, const target_t &target, image_t &image);
reading_t try_first_byte(const options_t &options, const target_t &target);

// What went wrong, without the target's label.
std::string failure_text(const target_t &target, const reading_t &reading);

// The status of a command to which the reading was everything.
exit_code status_of(presence what);

// Reads the image; complains if that fails.
exit_code read_target(const options_t &options, const target_t &target, image_t &image);

// As read_target, until the image of a SPROM was read twice alike: readers that take no lock may move the EEPROM's
// address counter.
exit_code read_target_twice(const options_t &options, const target_t &target, image_t &image);

// Says that a family has no SPROM of this name. Returns EXIT_FAILED.
exit_code complain_no_sprom(const family_t &family, const std::string &name);

// Takes the lock of a SPROM's EEPROM for more than one transfer; none for a file. Where there is no place for it, this
// is refused unless --force is given. Returns EXIT_OK, or another status after a message that begins with `what`.
exit_code lock_writing(const options_t &options, const target_t &target, const char *what,
                       std::optional<chip_lock_t> &lock);

// Refuses to write to a SPROM where the service may mean another one, unless --force is given.
exit_code check_writing(const options_t &options, const target_t &target);

// Put bytes into a file, or an image into the file that is the target; complain if that fails.
exit_code save_image(const std::string &path, std::span<const uint8_t> bytes);
exit_code write_to_file(const target_t &target, const image_t &image);

}  // namespace tool

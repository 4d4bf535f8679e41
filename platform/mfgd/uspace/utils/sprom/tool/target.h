// target.h: what a command works on: a SPROM of the board, or an image in a file.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/mfgd/uspace/utils/sprom/tool/device.h"
#include "platform/mfgd/uspace/utils/sprom/tool/image_file.h"
#include "platform/mfgd/uspace/utils/sprom/tool/options.h"
#include "platform/mfgd/uspace/utils/sprom/tool/output.h"

namespace tool {

struct target_t {
  const kind_t *kind = nullptr;
  std::optional<entry_t> entry;  // empty for a file
  std::string path = {};         // of a file
  image_file_t file = {};
  size_t base = 0;  // of the image in the file

  // The SPROM's or the file's name, and that with where it is, for messages.
  [[nodiscard]] std::string name() const;
  [[nodiscard]] std::string label() const;
};

// The family that --family names or the board tells; null after a message.
const family_t *find_family(const options_t &options);

// The kind with a layout that an argument names; null after a message.
const kind_t *kind_argument(const std::string &name);

// Finds the SPROM of that name, or the image in --file, where the name is a kind and may be left out. Where a dump
// holds several images and none is named, find_targets takes all and find_target complains.
// Return EXIT_OK, or another status after a message.
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

// Reads the image, or only its first byte. Where the service goes by identities alone, a SPROM that this would write to
// is not asked unless --force is given, and of one that it may confuse with another a warning is printed.
reading_t try_read(const options_t &options, const target_t &target, image_t &image);
reading_t try_first_byte(const options_t &options, const target_t &target);

// What went wrong, without the target's label.
std::string failure_text(const target_t &target, const reading_t &reading);

// Reads the image; complains if that fails.
exit_code read_target(const options_t &options, const target_t &target, image_t &image);

// Refuses to write to a SPROM where the service may mean another one, unless --force is given.
exit_code check_writing(const options_t &options, const target_t &target);

// Put bytes into a file, or an image into the file that is the target; complain if that fails.
exit_code save_image(const std::string &path, std::span<const uint8_t> bytes);
exit_code write_to_file(const target_t &target, const image_t &image);

}  // namespace tool

// backup.h: the copy of the old image that a write keeps.
#pragma once

#include "sprom/board/target.h"

namespace tool {

// Looks whether --backup=FILE can be made: it must not be there yet, or --force keeps what is there and numbers the new
// one; what is no plain file stays refused.
//   source  the file with the new image, or null
// Returns EXIT_OK, or another status after a message that says if FILE is the target or the source.
[[nodiscard]] exit_code check_backup(const options_t &options, const target_t &target, const std::string *source);

// Keeps the old image of a SPROM unless that is declined, a file's where that is asked for, in a file that nothing had
// before.
//   path  its name; "" if nothing was to be kept
// Returns EXIT_OK, or another status after a message.
[[nodiscard]] exit_code keep_backup(const options_t &options, const target_t &target, const image_t &image,
                                    std::string &path);

// Prints where the old image is.
void tell_backup(const target_t &target, const std::string &path);

// The same on standard error, if standard output, which had it, cannot be written.
void repeat_backup(const target_t &target, const std::string &path);

}  // namespace tool

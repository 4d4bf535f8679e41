// file.h: image files.
#pragma once

#include <stdint.h>

#include <span>
#include <string>
#include <vector>

namespace tool {

// Reads at most `limit` bytes of a file; a longer file yields `limit`.
// Returns 0, or the errno value of the failure.
[[nodiscard]] int read_file(const std::string &path, size_t limit, std::vector<uint8_t> &data);

// Makes `data` the content of a file. A regular file, or one that does not exist yet, is replaced as a whole: what goes
// wrong on the way leaves the old file as it was. Anything else (a device, a pipe) is written to.
// Returns 0, or the errno value of the failure.
[[nodiscard]] int write_file(const std::string &path, std::span<const uint8_t> data);

}  // namespace tool

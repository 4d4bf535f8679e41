// file.h: files as the command line names them; "-" is standard input or output.
#pragma once

#include <stdint.h>

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// The name that means standard input or output.
inline constexpr std::string_view standard_stream = "-";

// The name of a file in messages, as a terminal can bear it.
std::string file_label(const std::string &path);

// Reads at most `limit` bytes of a file; a longer file yields `limit`.
// Returns 0, or the errno value of the failure.
[[nodiscard]] int read_file(const std::string &path, size_t limit, std::vector<uint8_t> &data);

// Makes `data` the content of a file. A plain file, or one that does not exist yet, is replaced as a whole: what goes
// wrong on the way leaves the old file as it was. A link stays a link, its target is replaced. Anything else is written
// in place: a device, a pipe, or what one of the process's descriptors has open (/dev/stdout), at its present offset.
// Returns 0, or the errno value of the failure.
[[nodiscard]] int write_file(const std::string &path, std::span<const uint8_t> data);

// Makes a plain file with this content, on the disk with its name, where nothing is yet, not even a link: EEXIST if
// there is.
[[nodiscard]] int create_file(const std::string &path, std::span<const uint8_t> data);

}  // namespace tool

// paths.h: which files of the program are the board's, and where they live in its state directory.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sim/base/options.h"

namespace sim {

enum class device { none, sprom, mem, i2c };

// The board's version of a path.
struct redirection {
  std::string path;                        // to use instead of it; for a device the file that represents it
  int error = 0;                           // if not 0, opening fails with it
  sim::device device = sim::device::none;  // the model that answers
  uint32_t number = 0;                     // of an I2C bus
  const fault *missing = nullptr;          // why the path leads nowhere
  const fault *refused = nullptr;          // why opening fails
  // What the file holds on a board, if faults change that.
  std::string (*contents)(const options &opts) = nullptr;
};

// What a call does with a path: it asks about the file, and what cannot be opened is no error; it opens it to read; it
// makes or changes it; or it uses it otherwise.
enum class path_use : uint8_t { ask, read, change, use };

// The board's version of a path: what lies under /post, /var/lock and /var/lib/post-locate, /dev/i2c-N, /dev/sprom,
// /dev/mem, /proc/bus/pci/devices, /proc/cpuinfo, and ethtool in any bin or sbin directory. Nothing for every other
// path. A path is judged by its text, after "//", "/./" and "/../"; a relative one begins at the current directory.
//   writing  the file is to be made or changed
std::optional<redirection> redirect(const options &opts, std::string_view path, bool writing);

// Counts the faults that the program meets by this use of a path.
void count_faults(const options &opts, const redirection &to, path_use use);

// The same for a program that is to be started, by its name or path.
void count_program_faults(const options &opts, std::string_view program);

// Where a file is: the board's version of a path, or the path itself.
std::string board_place(const options &opts, const std::string &path);

// A shell command with the board's paths replaced, quoted as their places need it. Counts the faults
// that it meets.
std::string redirect_command(const options &opts, std::string_view command);

// Makes the board's directories and files in the state directory: what is missing, and again those whose contents the
// options fix. Returns false and says why in *error when the state directory cannot be used.
//   tsc_khz  the time-stamp counter's rate
bool make_board_files(const options &opts, uint64_t tsc_khz, std::string *error);

// The directory in the state directory that holds the commands of the board's shell.
std::string command_directory(const options &opts);

}  // namespace sim

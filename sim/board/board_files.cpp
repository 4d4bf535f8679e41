// board_files.cpp: what a board's state directory holds besides the contents of its devices.
#include <algorithm>
#include <array>
#include <climits>
#include <vector>

#include "sim/base/files.h"
#include "sim/base/real.h"
#include "sim/board/cpuinfo.h"
#include "sim/board/i2c_board.h"
#include "sim/board/paths.h"
#include "sim/board/pci_list.h"

namespace sim {

namespace {

constexpr std::array directories{"/post", "/var/lock", "/var/lib", "/proc/bus/pci", "/dev", "/bin"};
// Commands that the board's shell finds, besides ethtool.
constexpr std::array commands{"cat", "cp", "grep", "head", "ls", "mkdir", "mv", "rm", "sleep", "touch"};

bool make_link(const std::string &path, const std::string &target, std::string *error) {
  char now[PATH_MAX];
  const auto length = readlink(path.c_str(), now, sizeof(now));
  if (length >= 0 && target == std::string_view(now, static_cast<size_t>(length))) return true;
  (void)sys::unlink(path.c_str());
  const bool made = symlink(target.c_str(), path.c_str()) == 0 || errno == EEXIST;
  if (!made) *error = os_error(path);
  return made;
}

bool make_empty(const std::string &path, std::string *error) {
  const file made{sys::open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC)};
  if (!made.is_open()) *error = os_error(path);
  return made.is_open();
}

// The launcher is in the directory of the program that has this code, or in bin/ beside the library's directory.
std::string launcher_path() {
  const auto own = own_directory();
  auto beside = own + "/board-sim";
  return sys::access(beside.c_str(), X_OK) == 0 ? beside : own + "/../bin/board-sim";
}

bool make_commands(const options &opts, std::string *error) {
  const auto bin = command_directory(opts) + "/";
  const auto ethtool = bin + "ethtool";
  if (opts.find(fault_id::ethtool_missing) != nullptr)
    (void)sys::unlink(ethtool.c_str());
  else if (!make_link(ethtool, launcher_path(), error))
    return false;
  for (const auto *const name : commands)
    if (!make_link(bin + name, std::string("/bin/") + name, error)) return false;
  return true;
}

bool make_device_files(const options &opts, std::string *error) {
  std::vector<std::string> names{"sprom", "mem"};
  for (const auto number : i2c_bus_numbers(opts))
    names.push_back("i2c-" + std::to_string(number));
  return std::ranges::all_of(names, [&](const auto &name) { return make_empty(opts.state + "/dev/" + name, error); });
}

}  // namespace

std::string command_directory(const options &opts) {
  return opts.state + "/bin";
}

bool make_board_files(const options &opts, uint64_t tsc_khz, std::string *error) {
  for (const auto *const name : directories)
    if (!make_directories(opts.state + name, error)) return false;
  return make_device_files(opts, error) && write_file(opts.state + "/proc/bus/pci/devices", pci_list(opts), error) &&
         write_file(opts.state + "/proc/cpuinfo", cpuinfo(opts, tsc_khz), error) && make_commands(opts, error);
}

}  // namespace sim

// board_files.cpp: what a board's state directory holds besides the contents of its devices.
#include <array>
#include <cstring>

#include "sim/board/i2c_board.h"
#include "sim/devices/pci_list.h"
#include "sim/host/cpuinfo.h"
#include "sim/host/files.h"
#include "sim/host/paths.h"
#include "sim/host/real.h"

namespace sim {

namespace {

constexpr std::array directories{"/post", "/var/lock", "/proc/bus/pci", "/dev", "/bin"};
constexpr std::array device_files{"/dev/sprom", "/dev/mem"};
// Commands that the board's shell finds, besides ethtool.
constexpr std::array commands{"cat", "cp", "grep", "head", "ls", "mkdir", "mv", "rm", "sleep", "touch"};

bool make_link(const std::string &path, const std::string &target) {
  char now[4096];
  const auto length = readlink(path.c_str(), now, sizeof(now));
  if (length >= 0 && target == std::string_view(now, static_cast<size_t>(length))) return true;
  (void)sys::unlink(path.c_str());
  return symlink(target.c_str(), path.c_str()) == 0 || errno == EEXIST;
}

bool make_empty(const std::string &path) {
  const file made{sys::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC)};
  return made.is_open();
}

// The launcher stands beside the program that holds this code, or beside its library directory.
std::string launcher_path() {
  const auto own = own_directory();
  auto beside = own + "/board-sim";
  return sys::access(beside.c_str(), X_OK) == 0 ? beside : own + "/../bin/board-sim";
}

bool make_commands(const options &opts) {
  const auto bin = command_directory(opts) + "/";
  const auto ethtool = bin + "ethtool";
  if (opts.find(fault_id::ethtool_missing) != nullptr)
    (void)sys::unlink(ethtool.c_str());
  else if (!make_link(ethtool, launcher_path()))
    return false;
  for (const auto *const name : commands)
    if (!make_link(bin + name, std::string("/bin/") + name)) return false;
  return true;
}

// Tells by *path what cannot be made.
bool make_all(const options &opts, uint64_t tsc_khz, std::string *path) {
  for (const auto *const name : directories) {
    *path = opts.state + name;
    if (!make_directories(*path)) return false;
  }
  for (const auto *const name : device_files) {
    *path = opts.state + name;
    if (!make_empty(*path)) return false;
  }
  for (const auto number : i2c_bus_numbers(opts)) {
    *path = opts.state + "/dev/i2c-" + std::to_string(number);
    if (!make_empty(*path)) return false;
  }
  *path = opts.state + "/proc/bus/pci/devices";
  if (!write_file(*path, pci_list(opts))) return false;
  *path = opts.state + "/proc/cpuinfo";
  if (!write_file(*path, cpuinfo(opts, tsc_khz))) return false;
  *path = command_directory(opts);
  return make_commands(opts);
}

}  // namespace

std::string command_directory(const options &opts) {
  return opts.state + "/bin";
}

bool make_board_files(const options &opts, uint64_t tsc_khz, std::string *error) {
  std::string path;
  const bool made = make_all(opts, tsc_khz, &path);
  if (!made) *error = os_error(path);
  return made;
}

}  // namespace sim

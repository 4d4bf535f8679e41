// board.h: the simulated board of this process.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>

#include "sim/board/options.h"
#include "sim/host/paths.h"

namespace sim {

// Tells why the board that `opts` asks for cannot be built: "" if it can. Looks at the options alone.
std::string board_check(const options &opts);

// Builds the board that `opts` asks for: the state directory's files, the device models, the redirections. From then
// on the interposed C library entry points of this process meet it. Returns false and says why in *error when the state
// directory cannot be used. The rest of the board is as after power-on.
bool board_start(const options &opts, std::string *error);

// Takes the board away; the state directory stays. The C library's entry points are plain again.
void board_stop();

// The program ends as it wants: writes what is known only then. Errors go to standard error.
void board_program_ends();

// The running board's options, or null.
const options *board_options();

// What the interposed entry points ask. Each is "not mine" (nothing, false) while no board runs.

// Opens a device: a descriptor that stands for it, or -1 with errno set. It is one of the file that stands for the
// device, so that copies of it, in programs that inherit it too, stand for the device as well. The address that
// I2C_SLAVE chose is the file's offset, which copies share.
int device_open(const redirection &to, int flags);

std::optional<int> device_ioctl(int fd, unsigned long request, void *arg);

// mmap() of /dev/mem.
std::optional<void *> device_mmap(size_t length, int prot, int flags, int fd, uint64_t offset);

// munmap() of such a mapping or a part of it.
[[nodiscard]] bool device_munmap(void *addr, size_t length);

std::optional<int> device_iopl(int level);

// read() and write() of a device: one message on an I2C bus; other devices have neither.
std::optional<ssize_t> device_transfer(int fd, bool reading, void *data, size_t length);

}  // namespace sim

// board.h: the simulated board of this process.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>

#include "sim/base/options.h"
#include "sim/board/paths.h"

namespace sim {

// Returns why the board of `opts` cannot be built: "" if it can. Checks only the options.
std::string board_check(const options &opts);

// Builds the board that `opts` asks for: the state directory's files, the device models, the redirections. From then
// on the interposed C library functions of this process use it. Returns false and says why in *error when the state
// directory cannot be used. The rest of the board is as after power-on.
bool board_start(const options &opts, std::string *error);

// Removes the board; the state directory stays. The C library's functions are plain again.
void board_stop();

// The program prints a text, which may begin a row.
void board_program_prints(std::string_view text);
// The program ends normally: writes the reports that are known only then. Errors go to standard error.
void board_program_ends();

// The running board's options, or null.
const options *board_options();

// The questions of the interposed functions. The answer is "not mine" (nothing, false) while no board runs.

// Opens a device: returns a descriptor for it, or -1 with errno set. It is a descriptor of the file that represents the
// device, so copies of it mean the device as well, also in programs that inherit it. The address that
// I2C_SLAVE chose is the file's offset, which copies share.
int device_open(const redirection &to, int flags);
// The flag of such a descriptor that says whether the program may write: all of them are open for reading only.
int device_mark(bool writable);

std::optional<int> device_ioctl(int fd, unsigned long request, void *arg);

// mmap() of /dev/mem.
std::optional<void *> device_mmap(size_t length, int prot, int flags, int fd, uint64_t offset);

// mprotect() and mremap() of such mappings.
std::optional<int> device_mprotect(void *addr, size_t length, int prot);
std::optional<void *> device_mremap(void *addr, size_t length, size_t new_length, int flags, void *to);

// munmap() of such a mapping or a part of it.
[[nodiscard]] bool device_munmap(void *addr, size_t length);

// Forgets such mappings in the range, which was unmapped or mapped over.
void device_mapped_over(const void *addr, size_t length);

std::optional<int> device_iopl(int level);

// read() and write() of a device: one message on an I2C bus; other devices have neither.
std::optional<ssize_t> device_transfer(int fd, bool reading, void *data, size_t length);

}  // namespace sim

// interpose.cpp: the C library's entry points through which a program meets the board. Each looks whether the board is
// concerned and otherwise calls the next definition of its name. The logic is elsewhere.

// Only here off_t and struct stat are those of the plain names, and no inline form replaces a definition.
#undef _FILE_OFFSET_BITS
#undef _FORTIFY_SOURCE

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/io.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <string>
#include <type_traits>
#include <vector>

#include "sim/base/real.h"
#include "sim/board/board.h"
#include "sim/board/lock_holder.h"
#include "sim/bus/trace.h"
#include "sim/preload/children.h"

namespace {

template <size_t size>
struct symbol {
  // NOLINTNEXTLINE(google-explicit-constructor): a string literal is the argument
  consteval symbol(const char (&name)[size]) { std::copy_n(name, size, text); }
  char text[size];
};

// The definition that ours hides, of the type of `own`.
template <symbol name, class F>
F next(F) {
  static constinit std::atomic<F> found{nullptr};
  auto address = found.load(std::memory_order_relaxed);
  if (address == nullptr) {
    const sim::keep_errno kept;
    address = reinterpret_cast<F>(dlsym(RTLD_NEXT, name.text));
    found.store(address, std::memory_order_relaxed);
  }
  return address;
}

using intent = sim::path_use;

intent intent_of(int flags) {
  const bool changes = (flags & O_ACCMODE) != O_RDONLY || (flags & (O_CREAT | O_TRUNC)) != 0;
  return changes ? intent::change : intent::read;
}
intent intent_of(const char *mode) {
  return mode[0] != 'r' || strchr(mode, '+') != nullptr ? intent::change : intent::read;
}
intent access_intent(int mode) {
  return (mode & W_OK) != 0 ? intent::change : intent::use;
}

std::optional<sim::redirection> board_path(int dir, const char *path, intent why) {
  const auto *const opts = sim::board_options();
  if (opts == nullptr || path == nullptr || (dir != AT_FDCWD && path[0] != '/')) return std::nullopt;
  const sim::keep_errno kept;
  auto to = sim::redirect(*opts, path, why == intent::change);
  if (to) sim::count_faults(*opts, *to, why);
  if (to && why == intent::ask) to->error = 0;
  return to;
}

template <class R>
R failed(int error) {
  errno = error;
  if constexpr (std::is_pointer_v<R>)
    return nullptr;
  else
    return -1;
}

// A function whose first argument is a path: the next definition gets the board's version of it.
template <symbol name, class R, class... A>
R by_path(R (*own)(const char *, A...), intent why, const char *path, std::type_identity_t<A>... rest) {
  const auto to = board_path(AT_FDCWD, path, why);
  if (to && to->error != 0) return failed<R>(to->error);
  return next<name>(own)(to ? to->path.c_str() : path, rest...);
}

// The same for a function that takes a directory first.
template <symbol name, class... A>
int by_path_at(int (*own)(int, const char *, A...), intent why, int dir, const char *path,
               std::type_identity_t<A>... rest) {
  const auto to = board_path(dir, path, why);
  if (to && to->error != 0) return sim::fail(to->error);
  return to ? next<name>(own)(AT_FDCWD, to->path.c_str(), rest...) : next<name>(own)(dir, path, rest...);
}

// All opening forms come down to this call. Without large files a plain name only fails more often.
int open_any(int dir, const char *path, int flags, mode_t mode) {
  const auto to = board_path(dir, path, intent_of(flags));
  if (!to) return static_cast<int>(syscall(SYS_openat, dir, path, flags | O_LARGEFILE, mode));
  if (to->error != 0) return sim::fail(to->error);
  if (to->device != sim::device::none) return sim::device_open(*to, flags);
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, to->path.c_str(), flags | O_LARGEFILE, mode));
}

// Rows are recognised by the program's output.
__attribute__((format(printf, 1, 0))) int print(const char *format, va_list args) {
  if (sim::board_options() != nullptr && strstr(format, "Executing ") != nullptr) {
    char text[128];
    va_list again;
    va_copy(again, args);
    (void)vsnprintf(text, sizeof(text), format, again);
    va_end(again);
    sim::board_program_prints(text);
  }
  return next<"vprintf">(vprintf)(format, args);
}

// The mode of an opening call is there only with the flags that make a file.
mode_t mode_of(int flags, va_list args) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(args, mode_t) : 0;
}

// A stream on a device can only be asked for its descriptor.
template <symbol name, class... A>
FILE *stream(FILE *(*own)(const char *, const char *, A...), const char *path, const char *mode, A... rest) {
  const auto to = board_path(AT_FDCWD, path, intent_of(mode));
  if (to && to->error != 0) return failed<FILE *>(to->error);
  if (!to || to->device == sim::device::none) return next<name>(own)(to ? to->path.c_str() : path, mode, rest...);
  FILE *const opened = next<name>(own)(to->path.c_str(), strchr(mode, 'e') != nullptr ? "re" : "r", rest...);
  if (opened != nullptr) (void)sim::sys::fcntl(fileno(opened), F_SETFL, sim::device_mark(strchr(mode, '+') != nullptr));
  return opened;
}

int rename_any(int from_dir, const char *from, int to_dir, const char *to, unsigned flags) {
  const auto source = board_path(from_dir, from, intent::change);
  const auto target = board_path(to_dir, to, intent::change);
  const int error = source && source->error != 0 ? source->error : target ? target->error : 0;
  if (error != 0) return sim::fail(error);
  return next<"renameat2">(renameat2)(from_dir, source ? source->path.c_str() : from, to_dir,
                                      target ? target->path.c_str() : to, flags);
}

void *map_any(void *addr, size_t length, int prot, int flags, int fd, off64_t offset) {
  if ((flags & MAP_ANONYMOUS) == 0)
    if (const auto at = sim::device_mmap(length, prot, flags, fd, static_cast<uint64_t>(offset))) return *at;
  void *const at = next<"mmap64">(mmap64)(addr, length, prot, flags, fd, offset);
  if (at != MAP_FAILED && (flags & MAP_FIXED) != 0) sim::device_mapped_over(at, length);
  return at;
}

// The forms of fcntl() differ in the records that they take.
template <symbol name>
int fcntl_any(int (*own)(int, int, ...), int fd, int cmd, void *arg) {
  if (const auto *const opts = sim::board_options()) sim::lock_asked(*opts, fd, cmd, arg);
  return next<name>(own)(fd, cmd, arg);
}

// A command runs in the real shell, which meets the board by the command's text and its environment.
template <class F>
auto in_shell(const sim::options &opts, const char *command, F run) {
  const auto text = sim::redirect_command(opts, command);
  auto environment = sim::shell_environment(opts);
  char **const own = environ;
  environ = environment.pointers();
  const auto result = run(text.c_str());
  environ = own;
  return result;
}

// --- Programs. The caller may have come by vfork: what an exec leaves allocated is lost to its parent.

using program_path = std::array<char, PATH_MAX>;

// Finds a program, in PATH or not. Returns 0 or an errno value.
int locate(const char *name, bool search, program_path *place) {
  const auto &opts = *sim::board_options();
  sim::count_program_faults(opts, name);
  const auto found = search ? sim::find_program(opts, name) : sim::board_place(opts, name);
  if (found.empty()) return ENOENT;
  if (found.size() >= place->size()) return ENAMETOOLONG;
  std::copy_n(found.c_str(), found.size() + 1, place->begin());
  return sim::program_error(found);
}

int exec_at(const char *place, char *const *argv, char *const *envp) {
  if (sim::brings_board(envp)) return next<"execve">(execve)(place, argv, envp);
  auto environment = sim::with_board(envp, *sim::board_options());
  return next<"execve">(execve)(place, argv, environment.pointers());
}

// A file that the kernel does not take for a program is one of the shell's, when it was looked for as a command is.
int exec_by_shell(const char *place, char *const *argv, char *const *envp) {
  std::vector<char *> words{const_cast<char *>("/bin/sh"), const_cast<char *>(place)};
  for (auto *const *word = argv; *word != nullptr && *++word != nullptr;)
    words.push_back(*word);
  words.push_back(nullptr);
  const int error = sim::program_error(words[0]);
  return error != 0 ? sim::fail(error) : exec_at(words[0], words.data(), envp);
}

int exec_any(const char *name, char *const *argv, char *const *envp, bool search) {
  if (sim::board_options() == nullptr)
    return search ? next<"execvpe">(execvpe)(name, argv, envp) : next<"execve">(execve)(name, argv, envp);
  program_path place;
  const int error = locate(name, search, &place);
  if (error == ENOEXEC && search) return exec_by_shell(place.data(), argv, envp);
  return error != 0 ? sim::fail(error) : exec_at(place.data(), argv, envp);
}

using spawn_function = decltype(&posix_spawn);

int spawn_any(spawn_function plain, pid_t *pid, const char *name, const posix_spawn_file_actions_t *actions,
              const posix_spawnattr_t *attributes, char *const *argv, char *const *envp, bool search) {
  const auto *const opts = sim::board_options();
  if (opts == nullptr) return plain(pid, name, actions, attributes, argv, envp);
  program_path place;
  if (const int error = locate(name, search, &place)) return error;
  auto environment = sim::brings_board(envp) ? sim::environment(envp) : sim::with_board(envp, *opts);
  return next<"posix_spawn">(posix_spawn)(pid, place.data(), actions, attributes, argv, environment.pointers());
}

// The arguments of the forms that take them one by one, with the null after them.
std::vector<char *> argument_list(const char *first, va_list &args) {
  std::vector<char *> list{const_cast<char *>(first)};
  while (list.back() != nullptr)
    list.push_back(va_arg(args, char *));
  return list;
}

}  // namespace

extern "C" {
#pragma GCC visibility push(default)

// Functions that the headers declare only to fortified programs.
int __open_2(const char *path, int flags);
int __openat_2(int dir, const char *path, int flags);
ssize_t __read_chk(int fd, void *to, size_t length, size_t room);
int __printf_chk(int flag, const char *format, ...) __attribute__((format(printf, 2, 3)));
int __vprintf_chk(int flag, const char *format, va_list args) __attribute__((format(printf, 2, 0)));
// And one that they define: no compiler but gcc takes a second definition of that name.
int print_list(const char *format, va_list args) __asm__("vprintf") __attribute__((format(printf, 1, 0)));
#if __SIZEOF_POINTER__ == 4
// And only to 32-bit programs with times of 64 bits, such as the system's own.
int __stat64_time64(const char *path, void *st) noexcept;
int __lstat64_time64(const char *path, void *st) noexcept;
int __fstatat64_time64(int dir, const char *path, void *st, int flags) noexcept;
#endif

// --- Opening. Forms for large files are the same.

int open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const int fd = open_any(AT_FDCWD, path, flags, mode_of(flags, args));
  va_end(args);
  return fd;
}
int openat(int dir, const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const int fd = open_any(dir, path, flags, mode_of(flags, args));
  va_end(args);
  return fd;
}
// clang-format off
int __open_2(const char *path, int flags)            { return open_any(AT_FDCWD, path, flags, 0); }
int __openat_2(int dir, const char *path, int flags) { return open_any(dir, path, flags, 0); }
int creat(const char *path, mode_t mode)             { return open_any(AT_FDCWD, path, O_CREAT | O_WRONLY | O_TRUNC, mode); }
FILE *fopen(const char *path, const char *mode)            { return stream<"fopen64">(fopen, path, mode); }
FILE *freopen(const char *path, const char *mode, FILE *f) { return stream<"freopen64">(freopen, path, mode, f); }

int open64(const char *path, int flags, ...)           __attribute__((alias("open")));
int openat64(int dir, const char *path, int flags, ...) __attribute__((alias("openat")));
int __open64_2(const char *path, int flags)            __attribute__((alias("__open_2")));
int __openat64_2(int dir, const char *path, int flags) __attribute__((alias("__openat_2")));
int creat64(const char *path, mode_t mode)             __attribute__((alias("creat")));
FILE *fopen64(const char *path, const char *mode)      __attribute__((alias("fopen")));
FILE *freopen64(const char *path, const char *mode, FILE *f) __attribute__((alias("freopen")));

// --- Paths.

int stat(const char *path, struct stat *st) noexcept     { return by_path<"stat">(stat, intent::ask, path, st); }
int stat64(const char *path, struct stat64 *st) noexcept { return by_path<"stat64">(stat64, intent::ask, path, st); }
int lstat(const char *path, struct stat *st) noexcept    { return by_path<"lstat">(lstat, intent::ask, path, st); }
int lstat64(const char *path, struct stat64 *st) noexcept { return by_path<"lstat64">(lstat64, intent::ask, path, st); }
int fstatat(int dir, const char *path, struct stat *st, int flags) noexcept { return by_path_at<"fstatat">(fstatat, intent::ask, dir, path, st, flags); }
int fstatat64(int dir, const char *path, struct stat64 *st, int flags) noexcept { return by_path_at<"fstatat64">(fstatat64, intent::ask, dir, path, st, flags); }
int statx(int dir, const char *path, int flags, unsigned mask, struct statx *st) noexcept { return by_path_at<"statx">(statx, intent::ask, dir, path, flags, mask, st); }
#if __SIZEOF_POINTER__ == 4
int __stat64_time64(const char *path, void *st) noexcept  { return by_path<"__stat64_time64">(__stat64_time64, intent::ask, path, st); }
int __lstat64_time64(const char *path, void *st) noexcept { return by_path<"__lstat64_time64">(__lstat64_time64, intent::ask, path, st); }
int __fstatat64_time64(int dir, const char *path, void *st, int flags) noexcept { return by_path_at<"__fstatat64_time64">(__fstatat64_time64, intent::ask, dir, path, st, flags); }
#endif
int access(const char *path, int mode) noexcept          { return by_path<"access">(access, access_intent(mode), path, mode); }
int eaccess(const char *path, int mode) noexcept         { return by_path<"eaccess">(eaccess, access_intent(mode), path, mode); }
int faccessat(int dir, const char *path, int mode, int flags) noexcept { return by_path_at<"faccessat">(faccessat, access_intent(mode), dir, path, mode, flags); }
char *realpath(const char *path, char *to) noexcept      { return by_path<"realpath">(realpath, intent::ask, path, to); }
// ls -l asks for attributes.
int chmod(const char *path, mode_t mode) noexcept        { return by_path<"chmod">(chmod, intent::change, path, mode); }
int chown(const char *path, uid_t user, gid_t group) noexcept  { return by_path<"chown">(chown, intent::change, path, user, group); }
int lchown(const char *path, uid_t user, gid_t group) noexcept { return by_path<"lchown">(lchown, intent::change, path, user, group); }
int fchmodat(int dir, const char *path, mode_t mode, int flags) noexcept { return by_path_at<"fchmodat">(fchmodat, intent::change, dir, path, mode, flags); }
int fchownat(int dir, const char *path, uid_t user, gid_t group, int flags) noexcept { return by_path_at<"fchownat">(fchownat, intent::change, dir, path, user, group, flags); }
ssize_t getxattr(const char *path, const char *name, void *value, size_t size) noexcept  { return by_path<"getxattr">(getxattr, intent::ask, path, name, value, size); }
ssize_t lgetxattr(const char *path, const char *name, void *value, size_t size) noexcept { return by_path<"lgetxattr">(lgetxattr, intent::ask, path, name, value, size); }
ssize_t listxattr(const char *path, char *list, size_t size) noexcept  { return by_path<"listxattr">(listxattr, intent::ask, path, list, size); }
ssize_t llistxattr(const char *path, char *list, size_t size) noexcept { return by_path<"llistxattr">(llistxattr, intent::ask, path, list, size); }
DIR *opendir(const char *path)                           { return by_path<"opendir">(opendir, intent::use, path); }
int chdir(const char *path) noexcept                     { return by_path<"chdir">(chdir, intent::use, path); }
int mkdir(const char *path, mode_t mode) noexcept        { return by_path<"mkdir">(mkdir, intent::change, path, mode); }
int rmdir(const char *path) noexcept                     { return by_path<"rmdir">(rmdir, intent::change, path); }
int unlink(const char *path) noexcept                    { return by_path<"unlink">(unlink, intent::change, path); }
int remove(const char *path) noexcept                    { return by_path<"remove">(remove, intent::change, path); }
int unlinkat(int dir, const char *path, int flags) noexcept { return by_path_at<"unlinkat">(unlinkat, intent::change, dir, path, flags); }
int rename(const char *from, const char *to) noexcept    { return rename_any(AT_FDCWD, from, AT_FDCWD, to, 0); }
int renameat(int from_dir, const char *from, int to_dir, const char *to) noexcept { return rename_any(from_dir, from, to_dir, to, 0); }
int renameat2(int from_dir, const char *from, int to_dir, const char *to, unsigned flags) noexcept { return rename_any(from_dir, from, to_dir, to, flags); }

// --- Programs.

int execve(const char *path, char *const argv[], char *const envp[]) noexcept  { return exec_any(path, argv, envp, false); }
int execv(const char *path, char *const argv[]) noexcept                       { return exec_any(path, argv, environ, false); }
int execvp(const char *name, char *const argv[]) noexcept                      { return exec_any(name, argv, environ, true); }
int execvpe(const char *name, char *const argv[], char *const envp[]) noexcept { return exec_any(name, argv, envp, true); }
// clang-format on
int execl(const char *path, const char *arg, ...) noexcept {
  va_list args;
  va_start(args, arg);
  const int result = exec_any(path, argument_list(arg, args).data(), environ, false);
  va_end(args);
  return result;
}
int execlp(const char *name, const char *arg, ...) noexcept {
  va_list args;
  va_start(args, arg);
  const int result = exec_any(name, argument_list(arg, args).data(), environ, true);
  va_end(args);
  return result;
}
int execle(const char *path, const char *arg, ...) noexcept {
  va_list args;
  va_start(args, arg);
  const auto list = argument_list(arg, args);
  const int result = exec_any(path, list.data(), va_arg(args, char **), false);
  va_end(args);
  return result;
}

int posix_spawn(pid_t *pid, const char *path, const posix_spawn_file_actions_t *actions,
                const posix_spawnattr_t *attributes, char *const argv[], char *const envp[]) {
  return spawn_any(next<"posix_spawn">(posix_spawn), pid, path, actions, attributes, argv, envp, false);
}
int posix_spawnp(pid_t *pid, const char *name, const posix_spawn_file_actions_t *actions,
                 const posix_spawnattr_t *attributes, char *const argv[], char *const envp[]) {
  return spawn_any(next<"posix_spawnp">(posix_spawnp), pid, name, actions, attributes, argv, envp, true);
}

int system(const char *command) {
  const auto *const opts = sim::board_options();
  const auto run = next<"system">(system);
  return opts == nullptr || command == nullptr ? run(command) : in_shell(*opts, command, run);
}
FILE *popen(const char *command, const char *mode) {
  const auto *const opts = sim::board_options();
  const auto run = next<"popen">(popen);
  if (opts == nullptr) return run(command, mode);
  return in_shell(*opts, command, [&](const char *text) { return run(text, mode); });
}

// --- What the program prints. A sanitizer's library comes before ours and hands vprintf() on, not printf().

int print_list(const char *format, va_list args) {
  return print(format, args);
}
int __vprintf_chk(int, const char *format, va_list args) {
  return print(format, args);
}
int printf(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int result = print(format, args);
  va_end(args);
  return result;
}
int __printf_chk(int, const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int result = print(format, args);
  va_end(args);
  return result;
}

// --- Devices.

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list args;
  va_start(args, request);
  void *const arg = va_arg(args, void *);
  va_end(args);
  const auto result = sim::device_ioctl(fd, request, arg);
  return result ? *result : next<"ioctl">(ioctl)(fd, request, arg);
}

int fcntl(int fd, int cmd, ...) {
  va_list args;
  va_start(args, cmd);
  void *const arg = va_arg(args, void *);
  va_end(args);
  return fcntl_any<"fcntl">(fcntl, fd, cmd, arg);
}
int fcntl64(int fd, int cmd, ...) {
  va_list args;
  va_start(args, cmd);
  void *const arg = va_arg(args, void *);
  va_end(args);
  return fcntl_any<"fcntl64">(fcntl64, fd, cmd, arg);
}

ssize_t read(int fd, void *to, size_t length) {
  const auto result = sim::device_transfer(fd, true, to, length);
  return result ? *result : next<"read">(read)(fd, to, length);
}
ssize_t __read_chk(int fd, void *to, size_t length, size_t room) {
  const auto result = sim::device_transfer(fd, true, to, std::min(length, room));
  return result ? *result : next<"__read_chk">(__read_chk)(fd, to, length, room);
}
ssize_t write(int fd, const void *from, size_t length) {
  const auto result = sim::device_transfer(fd, false, const_cast<void *>(from), length);
  return result ? *result : next<"write">(write)(fd, from, length);
}

void *mmap64(void *addr, size_t length, int prot, int flags, int fd, off64_t offset) noexcept {
  return map_any(addr, length, prot, flags, fd, offset);
}
void *mmap(void *addr, size_t length, int prot, int flags, int fd, off_t offset) noexcept {
  // Above 2 GiB a 32-bit offset looks negative.
  return map_any(addr, length, prot, flags, fd, static_cast<off64_t>(static_cast<unsigned long>(offset)));
}
int munmap(void *addr, size_t length) noexcept {
  if (sim::device_munmap(addr, length)) return 0;
  const int result = next<"munmap">(munmap)(addr, length);
  if (result == 0) sim::device_mapped_over(addr, length);
  return result;
}
int mprotect(void *addr, size_t length, int prot) noexcept {
  const auto result = sim::device_mprotect(addr, length, prot);
  return result ? *result : next<"mprotect">(mprotect)(addr, length, prot);
}
void *mremap(void *addr, size_t length, size_t new_length, int flags, ...) noexcept {
  va_list args;
  va_start(args, flags);
  void *const to = (flags & MREMAP_FIXED) != 0 ? va_arg(args, void *) : nullptr;
  va_end(args);
  if (const auto at = sim::device_mremap(addr, length, new_length, flags, to)) return *at;
  void *const at = next<"mremap">(mremap)(addr, length, new_length, flags, to);
  if (at != MAP_FAILED && to != nullptr) sim::device_mapped_over(at, new_length);
  return at;
}

int iopl(int level) noexcept {
  const auto result = sim::device_iopl(level);
  return result ? *result : next<"iopl">(iopl)(level);
}

#pragma GCC visibility pop
}

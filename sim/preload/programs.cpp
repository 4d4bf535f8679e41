#include "sim/preload/programs.h"

#include <elf.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/xattr.h>

#include <array>
#include <climits>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>

#include "sim/base/real.h"

namespace sim {

namespace {

// A script's interpreter may be a script: the kernel follows so many (fs/exec.c of Linux).
constexpr int max_interpreters = 5;

constexpr bool is_64bit = sizeof(void *) == 8;
constexpr unsigned char own_class = is_64bit ? ELFCLASS64 : ELFCLASS32;
constexpr ElfW(Half) own_machine = is_64bit ? EM_X86_64 : EM_386;

struct identity {
  dev_t device;
  ino_t inode;
  bool operator==(const identity &) const = default;
};

std::optional<identity> identity_of(const char *path) {
  const file at{sys::open(path, O_PATH | O_CLOEXEC)};
  struct stat st {};
  if (!at.is_open() || ::fstat(at.fd(), &st) != 0) return std::nullopt;
  return identity{st.st_dev, st.st_ino};
}

bool read_at(const file &from, uint64_t offset, void *to, size_t length) {
  return ::pread(from.fd(), to, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length);
}

// The loader that a program asks for, "" if it asks for none.
std::string loader_of(const file &program, const ElfW(Ehdr) & header) {
  for (unsigned i = 0; i < header.e_phnum; ++i) {
    ElfW(Phdr) part{};
    if (!read_at(program, header.e_phoff + uint64_t{i} * header.e_phentsize, &part, sizeof(part))) return "";
    if (part.p_type != PT_INTERP || part.p_filesz > PATH_MAX) continue;
    std::string name(part.p_filesz, '\0');
    if (!read_at(program, part.p_offset, name.data(), name.size())) return "";
    name.resize(std::strlen(name.c_str()));
    return name;
  }
  return "";
}

// The loader of the running program.
const char *own_loader() {
  const auto headers = ::getauxval(AT_PHDR);
  uintptr_t base = 0;
  for (const auto &part : std::span(reinterpret_cast<const ElfW(Phdr) *>(headers), ::getauxval(AT_PHNUM))) {
    if (part.p_type == PT_PHDR) base = headers - part.p_vaddr;
    if (part.p_type == PT_INTERP) return reinterpret_cast<const char *>(base + part.p_vaddr);
  }
  return "";
}

// Such a program starts in the loader's secure mode, which ignores what is to be preloaded.
bool has_rights_of_its_own(const file &program) {
  struct stat st {};
  if (::fstat(program.fd(), &st) != 0) return true;
  const bool other_user = (st.st_mode & S_ISUID) != 0 && st.st_uid != ::getuid();
  const bool other_group = (st.st_mode & (S_ISGID | S_IXGRP)) == (S_ISGID | S_IXGRP) && st.st_gid != ::getgid();
  const bool capable = ::getuid() != 0 && ::fgetxattr(program.fd(), "security.capability", nullptr, 0) > 0;
  return other_user || other_group || capable;
}

// Why the library does not get into an ELF file, "" if it does.
const char *refusal_of(const file &program) {
  ElfW(Ehdr) header{};
  const bool whole = read_at(program, 0, &header, sizeof(header));
  if (header.e_ident[EI_CLASS] != own_class || (whole && header.e_machine != own_machine))
    return is_64bit ? "this board runs 64-bit x86 programs only" : "this board runs 32-bit x86 programs only";
  const auto loader = loader_of(program, header);
  if (loader.empty()) return "statically linked, the board's library cannot get into it";
  if (identity_of(loader.c_str()) != identity_of(own_loader()))
    return "it has another loader than the board's library, which cannot get into it";
  if (has_rights_of_its_own(program))
    return "it has a user, group or capabilities of its own, the board's library cannot get into it";
  return "";
}

program_check refused(const std::string &path, const std::string &image, std::string_view why) {
  std::string text = path + ": ";
  if (image != path) text += image + ": ";
  return {0, text.append(why), image};
}

// The interpreter that a script's first line names, "" for a file that is no script.
std::string interpreter_of(std::string_view head) {
  if (!head.starts_with("#!")) return "";
  head = head.substr(0, head.find_first_of(std::string_view("\n\0", 2)));
  const auto begin = head.find_first_not_of(" \t", 2);
  if (begin == std::string_view::npos) return "";
  return std::string(head.substr(begin, head.find_first_of(" \t", begin) - begin));
}

}  // namespace

int execution_error(const std::string &path) {
  const file at{sys::open(path.c_str(), O_PATH | O_CLOEXEC)};
  struct stat st {};
  if (!at.is_open() || ::fstat(at.fd(), &st) != 0) return errno;
  if (!S_ISREG(st.st_mode)) return EACCES;
  return sys::access(path.c_str(), X_OK) == 0 ? 0 : errno;
}

program_check check_program(const std::string &path) {
  std::string image = path;
  for (int i = 0; i <= max_interpreters; ++i) {
    if (const int error = execution_error(image)) return {error, "", image};
    const file program{sys::open(image.c_str(), O_RDONLY | O_CLOEXEC)};
    if (!program.is_open()) return refused(path, image, "it cannot be read, so nobody knows what it would run on");
    std::array<char, 256> head{};
    const auto length = ::pread(program.fd(), head.data(), head.size(), 0);
    const std::string_view text(head.data(), length < 0 ? 0 : static_cast<size_t>(length));
    if (text.starts_with(ELFMAG)) {
      const std::string_view why = refusal_of(program);
      return why.empty() ? program_check{0, "", image} : refused(path, image, why);
    }
    image = interpreter_of(text);
    if (image.empty()) return {ENOEXEC, "", path};
  }
  return {ELOOP, "", path};
}

}  // namespace sim

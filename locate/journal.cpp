#include "locate/journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"

namespace locate {
namespace {

constexpr size_t line_bytes = sizeof "1FFE ABCD";

std::string os_error(const std::string &path) {
  return path + ": " + std::strerror(errno);
}

// A file that is new, or gone, stays so.
void sync_directory(const std::string &path) {
  const unique_fd directory(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) (void)fsync(directory.get());
}

}  // namespace

journal::journal(const std::string &directory, std::string_view part)
    : m_directory(directory), m_path(directory + "/" + std::string(part) + ".journal") {}

journal::~journal() {
  if (m_fd >= 0) (void)close(m_fd);
}

std::string journal::start() {
  finish();
  if (mkdir(m_directory.c_str(), 0700) != 0 && errno != EEXIST) return os_error(m_directory);
  m_fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (m_fd < 0) return os_error(m_path);
  sync_directory(m_directory);
  return "";
}

bool journal::keep(const std::vector<kept_word> &words) {
  std::string text;
  text.reserve(words.size() * line_bytes);
  for (const auto &one : words) {
    std::array<char, line_bytes + 8> line{};
    (void)std::snprintf(line.data(), line.size(), "%04X %04X\n", one.offset, unsigned{one.word});
    text += line.data();
  }
  return m_fd >= 0 && write(m_fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
         fdatasync(m_fd) == 0;
}

void journal::finish() {
  if (m_fd >= 0) (void)close(m_fd);
  m_fd = -1;
  if (unlink(m_path.c_str()) == 0) sync_directory(m_directory);
}

std::vector<kept_word> journal::left() const {
  std::vector<kept_word> words;
  const file_ptr file(fopen(m_path.c_str(), "re"));
  std::array<char, line_bytes + 1> line{};
  // The last line may be torn; what it describes was not done then.
  while (file && fgets(line.data(), line.size(), file.get()) != nullptr && std::strlen(line.data()) == line_bytes) {
    unsigned offset = 0;
    unsigned word = 0;
    if (std::sscanf(line.data(), "%4X %4X", &offset, &word) != 2) break;
    words.push_back({offset, static_cast<uint16_t>(word)});
  }
  return words;
}

}  // namespace locate

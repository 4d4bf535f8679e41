#include "locate/journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "locate/finding.h"
#include "platform/mfgd/cmn_lib/diag_util/owner.h"

namespace locate {
namespace {

constexpr size_t line_bytes = sizeof "1FFE ABCD";

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

void journal::start() {
  const bool is_new = mkdir(m_directory.c_str(), 0700) == 0;
  if (!is_new && errno != EEXIST) {
    m_error = os_error(m_directory);
    return;
  }
  if (is_new) sync_directory(m_directory + "/..");
  m_fd = open(m_path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0600);
  m_length = 0;
  if (m_fd < 0) m_error = os_error(m_path);
  sync_directory(m_directory);
}

bool journal::keep(const std::vector<kept_word> &words) {
  if (m_fd < 0) return false;
  std::string text;
  text.reserve(words.size() * line_bytes);
  for (const auto &one : words) {
    std::array<char, line_bytes + 8> line{};
    (void)std::snprintf(line.data(), line.size(), "%04X %04X\n", one.offset, unsigned{one.word});
    text += line.data();
  }
  const auto length = static_cast<ssize_t>(text.size());
  errno = ENOSPC;  // of a write that is cut short
  if (write(m_fd, text.data(), text.size()) == length && fdatasync(m_fd) == 0) {
    m_length += length;
    return true;
  }
  if (m_error.empty()) m_error = os_error(m_path);
  if (ftruncate(m_fd, m_length) != 0) m_error = os_error(m_path);
  return false;
}

void journal::finish() {
  if (m_fd >= 0) (void)close(m_fd);
  m_fd = -1;
  if (unlink(m_path.c_str()) == 0) sync_directory(m_directory);
}

std::optional<std::vector<kept_word>> journal::left() const {
  std::vector<kept_word> words;
  errno = 0;
  const file_ptr file(fopen(m_path.c_str(), "re"));
  if (!file) return errno == ENOENT || errno == ENOTDIR ? std::optional(words) : std::nullopt;
  std::array<char, line_bytes + 1> line{};
  while (fgets(line.data(), line.size(), file.get()) != nullptr) {
    const std::string_view text = line.data();
    const bool whole = text.ends_with('\n');
    // The last line may be torn; what it describes was not done then.
    if (!whole && text.size() < line_bytes) break;
    unsigned offset = 0;
    unsigned word = 0;
    const int found = std::sscanf(line.data(), "%4X %4X", &offset, &word);
    if (!whole || text.size() != line_bytes || found != 2) {
      errno = EBADMSG;
      return std::nullopt;
    }
    words.push_back({offset, static_cast<uint16_t>(word)});
  }
  return std::ferror(file.get()) == 0 ? std::optional(words) : std::nullopt;
}

}  // namespace locate

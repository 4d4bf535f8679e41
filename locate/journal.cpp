#include "locate/journal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "locate/finding.h"
#include "platform/mfgd/cmn_lib/diag_util/owner.h"

namespace locate {
namespace {

constexpr size_t line_bytes = sizeof "1FFE ABCD";

// A line is as keep() writes it. Anything else may hide words, such as zeros that a disk has instead of lines.
std::optional<kept_word> word_in(std::string_view line) {
  const auto number = [line](size_t first) {
    uint16_t value = 0;
    const auto *const begin = line.data() + first;
    const auto [end, wrong] = std::from_chars(begin, begin + 4, value, 16);
    return wrong == std::errc{} && end == begin + 4 ? std::optional(value) : std::nullopt;
  };
  const auto offset = number(0);
  const auto word = number(5);
  if (!offset || *offset % 2 != 0 || !word || line[4] != ' ' || line[9] != '\n') return std::nullopt;
  return kept_word{*offset, *word};
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

std::optional<std::string> journal::set_aside() {
  const auto lost = m_path.substr(0, m_path.rfind('.')) + ".lost";
  auto path = lost;
  // A new name: a file that is there holds words of an earlier run.
  for (unsigned number = 2;; ++number) {
    const unique_fd is_new(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (is_new) break;
    if (errno != EEXIST) return std::nullopt;
    path = lost + "." + std::to_string(number);
  }
  if (rename(m_path.c_str(), path.c_str()) != 0) return std::nullopt;
  sync_directory(m_directory);
  return path;
}

std::optional<std::vector<kept_word>> journal::left() const {
  std::vector<kept_word> words;
  errno = 0;
  const file_ptr file(fopen(m_path.c_str(), "re"));
  if (!file) return errno == ENOENT || errno == ENOTDIR ? std::optional(words) : std::nullopt;
  std::array<char, line_bytes> line{};
  size_t length = 0;
  while ((length = fread(line.data(), 1, line.size(), file.get())) == line.size()) {
    const auto word = word_in({line.data(), length});
    if (!word) {
      errno = EBADMSG;
      return std::nullopt;
    }
    words.push_back(*word);
  }
  // The last line may be torn; what it describes was not done then.
  return std::ferror(file.get()) == 0 ? std::optional(words) : std::nullopt;
}

}  // namespace locate

// journal.h: the contents of words that are about to be changed, in a file that outlives the process and the power.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace locate {

struct kept_word {
  uint32_t offset;
  uint16_t word;
};

// The journal of a part, DIR/PART.journal: a line "OFFSET WORD" for each word that does not hold its own contents now.
class journal {
 public:
  journal(const std::string &directory, std::string_view part);
  journal(const journal &) = delete;
  journal &operator=(const journal &) = delete;
  ~journal();

  // Starts an empty journal and makes its directory; there must be none. If that fails, error() has why, and keep()
  // does nothing.
  void start();

  // Writes words down, before they are changed: when it returns true, they are on the disk. Else error() has why, and
  // the journal is as before.
  bool keep(const std::vector<kept_word> &words);

  // What went wrong first, "" for nothing.
  [[nodiscard]] const std::string &error() const { return m_error; }

  // All words hold their contents again: the file goes.
  void finish();

  // Words cannot be restored: what they held stays in a file of another name, which no start restores. Returns its
  // path; nothing if that fails.
  [[nodiscard]] std::optional<std::string> set_aside();

  // What an interrupted process has left, in the order in which it was kept. Nothing if that cannot be read;
  // errno has why.
  [[nodiscard]] std::optional<std::vector<kept_word>> left() const;
  [[nodiscard]] const std::string &path() const { return m_path; }

 private:
  std::string m_directory;
  std::string m_path;
  std::string m_error;
  int m_fd = -1;
  off_t m_length = 0;
};

}  // namespace locate

// journal.h: the contents of words that are about to be changed, in a file that outlives the process and the power.
#pragma once

#include <cstdint>
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

  // Starts an empty journal and makes its directory. Returns "" or what went wrong; then keep() does nothing.
  [[nodiscard]] std::string start();
  [[nodiscard]] bool is_open() const { return m_fd >= 0; }

  // Writes words down, before they are changed: when it returns true, they are on the disk.
  [[nodiscard]] bool keep(const std::vector<kept_word> &words);

  // All words hold their contents again: the file goes.
  void finish();

  // What an interrupted process has left, in the order in which it was kept.
  [[nodiscard]] std::vector<kept_word> left() const;

 private:
  std::string m_directory;
  std::string m_path;
  int m_fd = -1;
};

}  // namespace locate

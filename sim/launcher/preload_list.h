// preload_list.h: the board's library in LD_PRELOAD.
#pragma once

#include <string>

namespace sim {

class preload_list {
 public:
  preload_list() = default;
  preload_list(const preload_list &) = delete;
  preload_list &operator=(const preload_list &) = delete;
  ~preload_list();

  // The loader splits LD_PRELOAD at blanks and colons and replaces what begins with a dollar sign: a library below a
  // path with such characters is reached by a link in a temporary directory, for as long as this object lives. Returns
  // false and says why in *error.
  bool make(const std::string &library, std::string *error);

  // The library's path for the loader.
  [[nodiscard]] const std::string &library() const { return m_library; }

  // LD_PRELOAD: the library, then its former contents.
  [[nodiscard]] std::string text() const;

 private:
  std::string m_library;
  std::string m_directory;  // temporary, empty for none
};

}  // namespace sim

// state_directory.h: the directory in which a board lives while board-sim runs.
#pragma once

#include <string>

#include "sim/base/real.h"

namespace sim {

class state_directory {
 public:
  state_directory() = default;
  state_directory(const state_directory &) = delete;
  state_directory &operator=(const state_directory &) = delete;
  // Removes a temporary one.
  ~state_directory();

  // Makes the given directory, or a temporary one if none was given, and locks it against other board-sim processes.
  // Removes the unfinished files of a killed run. Returns false and says why in *error.
  bool use(const std::string &asked, std::string *error);

  [[nodiscard]] const std::string &path() const { return m_path; }

 private:
  bool make_temporary(std::string *error);
  bool lock(std::string *error);

  std::string m_path;
  bool m_temporary = false;
  file m_lock;
};

}  // namespace sim

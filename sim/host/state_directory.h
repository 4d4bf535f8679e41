// state_directory.h: the directory in which a board lives while board-sim runs.
#pragma once

#include <string>

#include "sim/host/real.h"

namespace sim {

class state_directory {
 public:
  state_directory() = default;
  state_directory(const state_directory &) = delete;
  state_directory &operator=(const state_directory &) = delete;
  // Removes a temporary one.
  ~state_directory();

  // Makes the directory that was asked for, or a temporary one if none was, and keeps other board-sim processes out of
  // it. Removes what a run that was killed left half made. Returns false and says why in *error.
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

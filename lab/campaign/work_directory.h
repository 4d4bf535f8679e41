// work_directory.h: the directory that a campaign works in.
#pragma once

#include <string>

namespace lab {

// A new one goes with its owner unless it is kept; one that was taken over stays unless it is let go. Only one campaign
// at a time can have a directory.
class work_directory {
 public:
  work_directory() = default;
  work_directory(const work_directory &) = delete;
  work_directory &operator=(const work_directory &) = delete;
  ~work_directory();

  // Makes the directory; one that exists has to be empty. "" asks for a temporary one.
  // Returns "" or what went wrong.
  [[nodiscard]] std::string make(const std::string &asked);
  // Takes over the one of an interrupted campaign.
  [[nodiscard]] std::string take_over(const std::string &asked);
  void keep(bool stays) { m_goes = !stays; }

  [[nodiscard]] const std::string &path() const { return m_path; }

 private:
  std::string lock();

  std::string m_path;
  int m_lock = -1;
  bool m_goes = false;
};

// The path from the root on; "" stays "".
[[nodiscard]] std::string absolute_path(const std::string &path);

}  // namespace lab

// run.h: whole runs of post on the simulated board, as a user starts them.
#pragma once

#include "tests/support/test.h"

// A directory that is gone with its owner.
class temp_dir {
 public:
  temp_dir();
  temp_dir(const temp_dir &) = delete;
  temp_dir &operator=(const temp_dir &) = delete;
  ~temp_dir();
  [[nodiscard]] const std::filesystem::path &path() const { return m_path; }

 private:
  std::filesystem::path m_path;
};

struct outcome {
  int status = -1;      // exit status of board-sim
  std::string out;      // standard output
  std::string err;      // standard error
  std::string records;  // /post/result afterwards
};

// Runs a program of the build's bin directory to its end.
outcome run_program(const std::string &program, const std::vector<std::string> &args);

// Runs a shell command in a directory, with the build's programs in its path and an empty standard input.
outcome run_shell(const std::filesystem::path &dir, const std::string &command);

// Runs board-sim with `args` on a state directory; "--state" is added in front.
outcome run_board(const std::filesystem::path &state, const std::vector<std::string> &args);

// A word as a shell reads it back, whatever is in it.
std::string shell_word(const std::string &word);

// The text that printf would print.
__attribute__((format(printf, 1, 2))) std::string format(const char *fmt, ...);

std::string read_file(const std::filesystem::path &file);

// The text with what differs from run to run taken out: seconds, mapped addresses, descriptors.
std::string steady(std::string text);

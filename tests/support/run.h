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
  std::string command;  // of a shell
};

// Compares what a run ended with. Each text may be a matcher.
void expect_run(const outcome &run, int status, const testing::Matcher<std::string> &out,
                const testing::Matcher<std::string> &err = "");

// Runs a program of the build's bin directory to its end.
outcome run_program(const std::string &program, const std::vector<std::string> &args);

// Runs a shell command in a directory, with the build's programs in its path and an empty standard input.
outcome run_shell(const std::filesystem::path &dir, const std::string &command);

// Runs board-sim with `args` on a state directory; "--state" is added in front.
outcome run_board(const std::filesystem::path &state, const std::vector<std::string> &args);

std::string read_file(const std::filesystem::path &file);

// A test with a directory of its own and a shell in it.
class in_directory : public testing::Test {
 protected:
  // `before` comes before each command.
  explicit in_directory(std::string before = "") : m_before(std::move(before)) {}

  [[nodiscard]] std::filesystem::path path(const std::string &name) const { return m_dir.path() / name; }
  [[nodiscard]] std::string load(const std::string &name) const { return read_file(path(name)); }
  void save(const std::string &name, const std::string &text) const;
  [[nodiscard]] outcome sh(const std::string &command) const { return run_shell(m_dir.path(), m_before + command); }
  // Runs a program with each arguments. It ends with this status and, if that is 2, prints an error with this in it
  // instead of its output.
  void expect_endings(const std::string &program,
                      std::initializer_list<std::tuple<std::string, int, std::string>> endings) const;

 private:
  temp_dir m_dir;
  std::string m_before;
};

// The number in a variable of the environment, by which a user asks for more than usual.
size_t number_from(const char *variable, size_t otherwise);

// A shell's limit of the memory that its programs may map, in KiB; none where a sanitizer's shadow takes terabytes.
std::string memory_limit(unsigned kib);

// A word as a shell reads it back, whatever is in it.
std::string shell_word(const std::string &word);

// The text that printf would print.
__attribute__((format(printf, 1, 2))) std::string format(const char *fmt, ...);

// The text with what differs from run to run taken out: seconds, mapped addresses, descriptors.
std::string steady(std::string text);

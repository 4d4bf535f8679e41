// process.h: runs a program and keeps what it printed.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

struct process {
  std::vector<std::string> args{};           // program and arguments; the program's path is looked up
  std::map<std::string, std::string> env{};  // added to the test's own
  std::optional<std::string> typed{};  // standard input is a terminal at which this is typed; otherwise it is empty
  std::string output{};                // file that takes standard output; otherwise it is kept
  bool err_is_terminal = false;        // standard error is a terminal
  std::optional<size_t> file_limit{};  // RLIMIT_FSIZE, bytes
};

struct process_result {
  int status;  // exit status, or 128 and the signal
  std::string out;
  std::string err;
};

process_result run(const process &what);

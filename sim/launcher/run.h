// run.h: the program's run, from the launcher's side.
#pragma once

#include <string>
#include <vector>

namespace sim {

// From now on signals that would end this process from outside go to the program instead; a closed pipe and a limit of
// file sizes are errors. A signal that was ignored stays so.
void take_signals();

// Whether the loader loads the library into an ELF file with the present environment. Nothing of the program runs.
[[nodiscard]] bool loader_takes(const std::string &image, const std::string &library);

// How a run ended.
struct run_end {
  int error = 0;   // the program could not be started: the errno value
  int status = 0;  // exit status, if no signal ended the program
  int signal = 0;
};

// Runs a program to its end, with the signals' dispositions as they were before take_signals. What it leaves running
// becomes a child of this process.
run_end run_program(const std::string &program, const std::vector<std::string> &arguments);

// Ends all children of this process: those that the program left running would continue without a board.
void end_children();

}  // namespace sim

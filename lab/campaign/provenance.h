// provenance.h: where a matrix comes from.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace lab {

// The first three are the same for equal campaigns.
struct provenance {
  std::string tool;        // "post-campaign 1.0"
  std::string program;     // that was tested: its file name
  unsigned word_bits = 0;  // of the program, 0 if it is not known
  std::string commit;
  std::string machine;
  std::string date;  // when it was made, UTC as in RFC 3339
  std::string command;

  // Names and values, "" for what is not known.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> properties() const;
  // What is known, as "name: value, name: value", with the machine or without; "not known" if nothing is.
  [[nodiscard]] std::string text(bool with_machine) const;
};

// What is made here and now by this process.
//   program_bytes  the file of the program that is tested
[[nodiscard]] provenance provenance_now(const std::string &tool, const std::string &commit, const std::string &program,
                                        std::string_view program_bytes);

// This process's command line for people.
[[nodiscard]] std::string command_line();
// UTC as in RFC 3339.
[[nodiscard]] std::string now_text();

}  // namespace lab

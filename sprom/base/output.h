// output.h: messages, JSON, and what the library prints.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Exit statuses.
enum exit_code : int {
  EXIT_OK = 0,
  EXIT_FAILED = 1,
  EXIT_USAGE = 2,
  EXIT_EMPTY = 3,  // there is nothing in the slot
  EXIT_BUSY = 4,   // another process has the EEPROM
};

// Prints "sprom: " and one line on standard error.
void complain(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// What complain has printed so far, without "sprom: ".
const std::vector<std::string> &complaints();

// Prints a result for people and its line end: on standard output, unless it is to go to another stream, or to none.
void say(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void say_on(FILE *stream);

// As complain, followed by a hint at --help. Returns EXIT_USAGE.
exit_code complain_usage(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// As complain, if steps are to be shown (--verbose).
void tell_step(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void tell_steps(bool on);
[[nodiscard]] bool are_steps_told();

// The text and the number of a negative library result, which is a negative errno value, or of an errno value.
std::string error_text(int32_t error);

// A file's name as a terminal can bear it: what the locale does not print, and the backslash, as \xNN and \\.
std::string shown(std::string_view name);

// " (did you mean 'NAME'?)" for the name that the text is most like, "" if it is like none.
std::string did_you_mean(std::string_view text, const std::vector<std::string_view> &names);

// Splits at line ends; a last line without one counts.
std::vector<std::string_view> lines_of(std::string_view text);

// Members stay in the order in which they are made.
using json_t = nlohmann::ordered_json;

// Bytes of any value as JSON text: those above 0x7F as the characters U+0080 to U+00FF.
std::string json_text(std::string_view bytes);

// The bytes of such a text; false if it has other characters.
bool text_bytes(std::string_view json, std::string &bytes);

// Prints one line of JSON in ASCII. Returns `code`.
exit_code print_json(const json_t &json, exit_code code);

// Standard output redirected to memory, from construction until take().
class capture_t {
 public:
  capture_t();
  ~capture_t();
  capture_t(const capture_t &) = delete;
  capture_t &operator=(const capture_t &) = delete;
  std::string take();

 private:
  void restore();

  FILE *m_stdout;
  FILE *m_stream;
  char *m_text = nullptr;
  size_t m_size = 0;
};

// Runs `call` and returns what it printed on standard output, which is where the library reports.
template <typename T>
std::string captured(T call) {
  capture_t capture;
  call();
  return capture.take();
}

}  // namespace tool

// output.h: messages, JSON, and what the library prints.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <string_view>
#include <vector>

namespace tool {

// Exit statuses.
enum exit_code : int {
  EXIT_OK = 0,
  EXIT_FAILED = 1,
  EXIT_USAGE = 2,
};

// Prints "sprom: " and one line on standard error.
void complain(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// As complain, followed by a hint at --help. Returns EXIT_USAGE.
exit_code complain_usage(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// The text of a negative library result: a negative errno value.
const char *result_text(int32_t result);

// Splits at line ends; a last line without one counts.
std::vector<std::string_view> lines_of(std::string_view text);

// Writes one JSON value, compact, member by member.
class json_t {
 public:
  void begin(char bracket);  // '{' or '['
  void end();
  void key(std::string_view name);
  // Bytes above 0x7F are taken as the characters U+0080 to U+00FF.
  void text(std::string_view value);
  void number(uint64_t value);
  void boolean(bool value);
  void null();

  const std::string &str() const { return m_out; }

 private:
  void value(std::string_view literal);
  void quoted(std::string_view value);

  std::string m_out;
  std::string m_closing;   // the brackets that are open, innermost last
  bool m_is_first = true;  // no comma before the next member
};

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

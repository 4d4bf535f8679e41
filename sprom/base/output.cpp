#include "sprom/base/output.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>
#include <wctype.h>

#include <array>
#include <nlohmann/json.hpp>
#include <optional>

#include "faults/text.h"

namespace tool {
namespace {

constinit bool is_verbose = false;

void complain_list(const char *fmt, va_list args) __attribute__((format(printf, 1, 0)));

std::vector<std::string> all_complaints;
std::optional<FILE *> said_on;  // unless it is standard output

void complain_list(const char *fmt, va_list args) {
  (void)fflush(stdout);  // the order of both streams is that of the events
  (void)fputs("sprom: ", stderr);
  (void)vfprintf(stderr, fmt, args);
  (void)fputc('\n', stderr);
}

// Bytes of the next character that the locale prints; 0 if there is none.
size_t printed_length(std::string_view text) {
  mbstate_t state{};
  wchar_t character = 0;
  const size_t length = mbrtowc(&character, text.data(), text.size(), &state);
  if (length == 0 || length > text.size() || character == L'\\') return 0;
  return iswprint(static_cast<wint_t>(character)) != 0 ? length : 0;
}

}  // namespace

void complain(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  complain_list(fmt, args);
  va_end(args);
  char *text = nullptr;
  va_start(args, fmt);
  if (vasprintf(&text, fmt, args) >= 0) all_complaints.emplace_back(text);
  va_end(args);
  free(text);
}

const std::vector<std::string> &complaints() {
  return all_complaints;
}

void say(const char *fmt, ...) {
  FILE *const stream = said_on.value_or(stdout);
  if (stream == nullptr) return;
  va_list args;
  va_start(args, fmt);
  (void)vfprintf(stream, fmt, args);
  va_end(args);
  (void)fputc('\n', stream);
}

void say_on(FILE *stream) {
  said_on = stream;
}

exit_code complain_usage(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  complain_list(fmt, args);
  va_end(args);
  (void)fputs("Try 'sprom --help' for more information.\n", stderr);
  return EXIT_USAGE;
}

void tell_step(const char *fmt, ...) {
  if (!is_verbose) return;
  va_list args;
  va_start(args, fmt);
  complain_list(fmt, args);
  va_end(args);
}

void tell_steps(bool on) {
  is_verbose = on;
}

bool are_steps_told() {
  return is_verbose;
}

std::string error_text(int32_t error) {
  const int number = abs(error);
  return std::string{strerror(number)} + " (errno " + std::to_string(number) + ")";
}

std::string shown(std::string_view name) {
  std::string result;
  while (!name.empty()) {
    const size_t length = printed_length(name);
    if (length != 0) {
      result += name.substr(0, length);
    } else if (name.front() == '\\') {
      result += "\\\\";
    } else {
      std::array<char, 5> escape;
      (void)snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<uint8_t>(name.front()));
      result += escape.data();
    }
    name.remove_prefix(std::max<size_t>(length, 1));
  }
  return result;
}

std::string did_you_mean(std::string_view text, const std::vector<std::string_view> &names) {
  return sim::did_you_mean(text, names);
}

std::vector<std::string_view> lines_of(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    lines.push_back(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

std::string json_text(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<uint8_t>(c);
    if (byte < 0x80) {
      text += c;
    } else {
      text += static_cast<char>(0xC0 | byte >> 6);
      text += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return text;
}

bool text_bytes(std::string_view json, std::string &bytes) {
  bytes.clear();
  for (size_t i = 0; i < json.size(); ++i) {
    const auto lead = static_cast<uint8_t>(json[i]);
    if (lead < 0x80) {
      bytes += json[i];
    } else if (lead >= 0xC4 || i + 1 == json.size()) {  // 0xC2 and 0xC3 begin U+0080 to U+00FF
      return false;
    } else {
      bytes += static_cast<char>(lead << 6 | (static_cast<uint8_t>(json[++i]) & 0x3F));
    }
  }
  return true;
}

exit_code print_json(const json_t &json, exit_code code) {
  (void)printf("%s\n", json.dump(-1, ' ', true).c_str());
  return code;
}

// stdout is an ordinary variable of the C library.
capture_t::capture_t() : m_stdout(stdout), m_stream(open_memstream(&m_text, &m_size)) {
  if (m_stream != nullptr) stdout = m_stream;
}

capture_t::~capture_t() {
  restore();
  free(m_text);
}

std::string capture_t::take() {
  restore();
  return {m_text, m_size};  // of no text none
}

void capture_t::restore() {
  stdout = m_stdout;
  if (m_stream != nullptr) (void)fclose(m_stream);  // memory only; m_text and m_size are set now
  m_stream = nullptr;
}

}  // namespace tool

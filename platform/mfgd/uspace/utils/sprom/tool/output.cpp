#include "platform/mfgd/uspace/utils/sprom/tool/output.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <array>

namespace tool {
namespace {

void complain_list(const char *fmt, va_list args) __attribute__((format(printf, 1, 0)));

void complain_list(const char *fmt, va_list args) {
  (void)fflush(stdout);  // the order of both streams is that of the events
  (void)fputs("sprom: ", stderr);
  (void)vfprintf(stderr, fmt, args);
  (void)fputc('\n', stderr);
}

}  // namespace

void complain(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  complain_list(fmt, args);
  va_end(args);
}

exit_code complain_usage(const char *fmt, ...) {
  va_list args;
  va_start(args, fmt);
  complain_list(fmt, args);
  va_end(args);
  (void)fputs("Try 'sprom --help' for more information.\n", stderr);
  return EXIT_USAGE;
}

const char *result_text(int32_t result) {
  return strerror(-result);
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
  return m_text == nullptr ? std::string{} : std::string{m_text, m_size};
}

void capture_t::restore() {
  stdout = m_stdout;
  if (m_stream != nullptr) (void)fclose(m_stream);  // memory only; m_text and m_size are set now
  m_stream = nullptr;
}

void json_t::begin(char bracket) {
  value({&bracket, 1});
  m_closing += bracket == '{' ? '}' : ']';
  m_is_first = true;
}

void json_t::end() {
  m_out += m_closing.back();
  m_closing.pop_back();
  m_is_first = false;
}

void json_t::key(std::string_view name) {
  if (!m_is_first) m_out += ',';
  quoted(name);
  m_out += ':';
  m_is_first = true;
}

void json_t::text(std::string_view text) {
  value("");
  quoted(text);
}

void json_t::number(uint64_t number) {
  value(std::to_string(number));
}

void json_t::boolean(bool flag) {
  value(flag ? "true" : "false");
}

void json_t::null() {
  value("null");
}

void json_t::value(std::string_view literal) {
  if (!m_is_first) m_out += ',';
  m_out += literal;
  m_is_first = false;
}

void json_t::quoted(std::string_view text) {
  m_out += '"';
  for (const char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    if (c == '"' || c == '\\') {
      m_out += '\\';
      m_out += c;
    } else if (byte >= 0x20 && byte < 0x7F) {
      m_out += c;
    } else {
      std::array<char, 7> escape;
      (void)snprintf(escape.data(), escape.size(), "\\u%04x", byte);  // six characters, always
      m_out += escape.data();
    }
  }
  m_out += '"';
}

}  // namespace tool

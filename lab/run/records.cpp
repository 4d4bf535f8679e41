#include "lab/run/records.h"

#include <array>

#include "lab/base/text.h"
#include "lab/run/rows.h"

namespace lab {
namespace {

using fields = std::array<int32_t, 4>;

// Four integers with colons between them, and nothing else.
std::optional<fields> split(std::string_view text) {
  fields found;
  for (size_t i = 0; i < found.size(); ++i) {
    if (i > 0 && !take(&text, ":")) return std::nullopt;
    const auto number = take_number<int32_t>(&text);
    if (!number) return std::nullopt;
    found[i] = *number;
  }
  if (!text.empty()) return std::nullopt;
  return found;
}

// What is wrong with the values, or nothing.
const char *complaint(const fields &values) {
  const auto [lead, test, device, result] = values;
  if (lead != 0) return "the first field is not 0";
  if (!row_of_test(test)) return "no test has this id";
  if (!case_index(test, device)) return "the test has no such device";
  if (test == seeprom_test && device == seeprom_nothing) return "this device records nothing";
  if (result != RECORD_PASS && result != RECORD_FAIL) return "the result is neither 1 nor 2";
  return nullptr;
}

class record_parser {
 public:
  void line(const line_splitter::line &line) {
    const auto values = split(line.text);
    const char *const wrong = values ? complaint(*values) : "not four integers with colons between them";
    if (wrong != nullptr || line.cut > 0) {
      bad(line, wrong != nullptr ? wrong : "longer than a record");
      return;
    }
    if (!line.ended) bad(line, "a whole record, but its line end is missing");
    m_list.records.push_back({*case_index((*values)[1], (*values)[2]), (*values)[3], line.number});
    if (m_list.records.size() > record_list::records_kept) m_list.records.pop_front();
    ++m_list.record_count;
  }
  record_list take_list() { return std::move(m_list); }

 private:
  void bad(const line_splitter::line &line, const char *reason) {
    ++m_list.bad_count;
    auto &bad = m_list.bad;
    if (!bad.empty() && bad.back().last + 1 == line.number && bad.back().reason == reason) {
      bad.back().last = line.number;
    } else if (bad.size() < record_list::bad_kept) {
      bad.push_back({line.number, line.number, reason, printable(line.text)});
    } else {
      ++m_list.bad_unlisted;
    }
  }

  record_list m_list;
};

}  // namespace

record_list parse_records(std::string_view text) {
  record_parser parser;
  (void)each_line(text, [&parser](const line_splitter::line &line) { parser.line(line); });
  return parser.take_list();
}

record_list parse_records(std::istream &in) {
  record_parser parser;
  (void)each_line(in, [&parser](const line_splitter::line &line) { parser.line(line); });
  return parser.take_list();
}

size_t last_run_start(const std::deque<record> &records, size_t count) {
  if (count == 0) return 0;
  size_t start = count - 1;
  while (start > 0 && records[start - 1].index < records[start].index)
    --start;
  return start;
}

}  // namespace lab

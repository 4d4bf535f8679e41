// records.h: the file of result records, /post/result. A line is "lead:test:device:result"; every run appends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <istream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace lab {

enum record_result : int32_t { RECORD_PASS = 1, RECORD_FAIL = 2 };

struct record {
  size_t index;    // of the device, as of case_index()
  int32_t result;  // RECORD_PASS or RECORD_FAIL
  size_t line;     // in the file, from 1
};

// Lines one after the other that are no records for the same reason, or one that is not a whole record.
struct bad_lines {
  size_t first;
  size_t last;
  std::string reason;
  std::string text;  // of the first, printable
};

// The records of a file in their order. Of huge files only the last records_kept are kept, and the first bad_kept
// ranges of bad lines; the counts include all.
struct record_list {
  static constexpr size_t records_kept = 16384;
  static constexpr size_t bad_kept = 1000;

  std::deque<record> records;
  std::vector<bad_lines> bad;
  size_t record_count = 0;
  size_t bad_count = 0;     // lines
  size_t bad_unlisted = 0;  // lines that `bad` leaves out
};

[[nodiscard]] record_list parse_records(std::string_view text);
[[nodiscard]] record_list parse_records(std::istream &in);

// Where the last run of `count` records begins: a run's records go up in index, so one that does not begins a run.
// If the second of two runs begins beyond the end of the first, this cannot distinguish them.
[[nodiscard]] size_t last_run_start(const std::deque<record> &records, size_t count);

}  // namespace lab

// run_log.h: what runs of the program printed. A log may hold several runs, lines of others before, between and within
// them, lines without their end and runs without theirs; nothing in it makes reading fail, and memory stays bounded.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <istream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/run/rows.h"

namespace lab {

// A line that is part of no frame: what a test, a library or anybody else printed.
struct message {
  size_t line;        // in the log, from 1
  std::string text;   // printable, without the dots before it
  bool whole = true;  // false: the log stops within the line
};

struct message_list {
  static constexpr size_t lines_kept = 200;
  static constexpr size_t bytes_kept = 16384;

  std::vector<message> kept;  // the first ones
  size_t bytes = 0;           // of `kept`
  size_t more = 0;            // lines beyond the limits

  void add(size_t line, std::string_view text, bool whole = true);
  // Hands over the messages from `first` on.
  void move_to(message_list *other, size_t first);
  [[nodiscard]] bool contain(std::string_view text) const;
};

struct device_log {
  bool started = false;      // its dot, or something later in the row
  bool ended = false;        // something that follows only after its test: the next dot, its ERROR line, "done"
  bool failed = false;       // its ERROR line
  bool record_lost = false;  // its record could not be written
  message_list messages;
};

struct row_log {
  bool started = false;
  bool ended = false;
  std::optional<int32_t> seconds;  // as printed; negative where the clock was set back
};

struct run_log {
  size_t first_line = 0;
  size_t last_line = 0;
  bool asserted = false;                // an assertion ended it
  bool started = false;                 // "Starting system POST.....": the libraries have started
  std::optional<uint64_t> change_bits;  // the board revision line
  std::array<row_log, row_count> rows;
  std::array<device_log, case_count> devices;  // in the order of a run
  message_list startup;                        // before the first row
  message_list between;                        // after a row, in no device
  std::optional<bool> passed;                  // the verdict line
  bool completed = false;                      // "POST is completed"

  // Whether the rows that the short test skips were left out: a later row follows the end of the one before them. A log
  // that lost lines does not show that.
  [[nodiscard]] bool short_test() const;
  // The device within which a run stopped. Nothing if it stopped elsewhere or not at all.
  [[nodiscard]] std::optional<size_t> stopped_at() const;
};

// What a reader of the log should know about lines of it.
struct line_note {
  size_t first;
  size_t last;
  std::string text;
};

struct log_file {
  static constexpr size_t runs_kept = 64;
  static constexpr size_t notes_kept = 1000;

  std::deque<run_log> runs;  // the last ones
  size_t run_count = 0;      // of all
  std::vector<line_note> notes;
  size_t note_count = 0;
  size_t lines = 0;
};

[[nodiscard]] log_file parse_run_log(std::string_view text);
[[nodiscard]] log_file parse_run_log(std::istream &in);
// Of a file, - for standard input; what keeps it from being read is in *error.
[[nodiscard]] log_file read_run_log(const std::string &path, std::string *error);

}  // namespace lab

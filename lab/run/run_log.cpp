#include "lab/run/run_log.h"

#include <algorithm>
#include <iostream>
#include <span>

#include "lab/base/text.h"

namespace lab {
namespace {

bool is_blank(std::string_view text) {
  return text.find_first_not_of(" \t") == std::string_view::npos;
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// The sequencer's own texts.
enum class frame_kind { start, board, row, error, done, verdict, end };

struct frame {
  frame_kind kind;
  size_t begin;
  size_t end;
  uint64_t bits = 0;
  size_t index = 0;  // of a row, or of a device
  int32_t seconds = 0;
  bool passed = false;
};

// What follows the literal of a frame. They take it off `rest`, or return false if it is something else.
using read_rest = bool (*)(std::string_view *rest, frame *found);

bool read_nothing(std::string_view * /*rest*/, frame * /*found*/) {
  return true;
}

bool read_board(std::string_view *rest, frame *found) {
  const auto bits = take_number<uint64_t>(rest, 16);
  found->bits = bits.value_or(0);
  return bits && take(rest, ") board");
}

bool read_row(std::string_view *rest, frame *found) {
  for (size_t row = 0; row < rows.size(); ++row) {
    if (!take(rest, rows[row].title)) continue;
    found->index = row;
    (void)take(rest, ": ");
    return true;
  }
  return false;
}

bool read_error(std::string_view *rest, frame *found) {
  const auto test = take_number<int32_t>(rest);
  if (!test || !take(rest, " on dev ")) return false;
  const auto device = take_number<int32_t>(rest);
  const auto index = device ? case_index(*test, *device) : std::nullopt;
  found->index = index.value_or(0);
  return index.has_value();
}

bool read_done(std::string_view *rest, frame *found) {
  const auto seconds = take_number<int32_t>(rest);
  found->seconds = seconds.value_or(0);
  return seconds && take(rest, " seconds)");
}

bool read_verdict(std::string_view *rest, frame *found) {
  found->passed = take(rest, "Completed Successfully");
  return found->passed || take(rest, "Failed");
}

struct frame_form {
  frame_kind kind;
  std::string_view literal;
  read_rest read;
};

// clang-format off
constexpr frame_form forms[] = {
    {frame_kind::start,   "Starting system POST.....", read_nothing},
    {frame_kind::board,   "P(0x",                      read_board},
    {frame_kind::row,     "Executing ",                read_row},
    {frame_kind::error,   "ERROR: Executing ",         read_error},
    {frame_kind::done,    "done (",                    read_done},
    {frame_kind::verdict, "Mod 1 1 Post ",             read_verdict},
    {frame_kind::end,     "POST is completed",         read_nothing},
};

// What the libraries print before the sequencer has started.
constexpr std::string_view assert_text      = ": Assertion `";
constexpr std::string_view diag_assert_text = "## Assert:";
constexpr std::string_view startup_texts[]  = {
    "devmemfd:0x",
    "phys->virt: 0x",
    "## Error : Failed ",
    assert_text,
    diag_assert_text,
    "Unable to open /proc/cpuinfo for reading",
    "Unable to find '",
    "The device could not be found for vendorID: ",
    ": no size in base address register 0x",
    " is a 64-bit memory space for ",
    "mmap_map_addr():",
};
// clang-format on

// The sequencer's text of a record that it cannot write.
constexpr std::string_view no_record_text = "Could not open file post_results.txt";

// The frame that the text from `at` on begins with.
std::optional<frame> frame_at(std::string_view text, size_t at) {
  for (const frame_form &form : forms) {
    std::string_view rest = text.substr(at);
    frame found{form.kind, at, 0};
    if (!take(&rest, form.literal) || !form.read(&rest, &found)) continue;
    found.end = text.size() - rest.size();
    return found;
  }
  return std::nullopt;
}

// The first frame of the text. Lines can run into each other, so it may be anywhere.
std::optional<frame> find_frame(std::string_view text) {
  constexpr char first_letters[] = "SPEdM";
  for (size_t at = text.find_first_of(first_letters); at != std::string_view::npos;
       at = text.find_first_of(first_letters, at + 1)) {
    if (const auto found = frame_at(text, at)) return found;
  }
  return std::nullopt;
}

// How far the row is that is being run. Cases are numbered over all rows.
struct row_progress {
  size_t row;
  size_t next;       // case of its next device
  size_t end;        // case after its last device
  size_t current;    // case of the device that gets messages
  size_t unclaimed;  // messages of that device from here on came after its dot or its ERROR line
};

// Each takes at most so many dots off its end of a text and returns how many there were.
size_t take_first_dots(std::string_view *text, size_t most) {
  const size_t count = std::min(most, std::min(text->find_first_not_of('.'), text->size()));
  text->remove_prefix(count);
  return count;
}

size_t take_last_dots(std::string_view *text, size_t most) {
  const size_t last = text->find_last_not_of('.');
  const size_t count = std::min(most, text->size() - (last == std::string_view::npos ? 0 : last + 1));
  text->remove_suffix(count);
  return count;
}

class log_parser {
 public:
  void line(const line_splitter::line &line);
  log_file finish(size_t lines);

 private:
  void apply(const frame &found);
  void text(std::string_view piece, bool before_done);

  // Frames.
  void start();
  void board(uint64_t bits);
  void begin_row(size_t row);
  void error(size_t index);
  void done(int32_t seconds);
  void verdict(bool passed);
  void end();

  [[nodiscard]] bool opens_run(std::string_view piece) const;
  void open_run();
  void close_run() { m_open = false; }
  void need_run();
  void end_row();
  void start_next_devices(size_t count);
  void add_message(std::string_view piece);
  void lose_records_of_row();
  void outside(size_t line);
  void flush_outside();
  void note(size_t first, size_t last, std::string_view text);

  run_log &run() { return m_file.runs.back(); }
  [[nodiscard]] size_t devices_left() const { return m_row ? m_row->end - m_row->next : 0; }

  log_file m_file;
  size_t m_line = 0;
  bool m_line_ended = true;
  bool m_open = false;                // lines belong to the last run
  std::optional<row_progress> m_row;  // the row that is being run
  size_t m_outside_first = 0;         // lines of no run, 0 for none
  size_t m_outside_last = 0;
};

void log_parser::line(const line_splitter::line &line) {
  m_line = line.number;
  m_line_ended = line.ended;
  if (line.cut > 0) note(m_line, m_line, "longer than the limit, the rest of it is left out");
  if (!line.ended) note(m_line, m_line, "the log stops within this line");
  std::string_view rest = line.text;
  while (const auto found = find_frame(rest)) {
    text(rest.substr(0, found->begin), found->kind == frame_kind::done);
    apply(*found);
    rest.remove_prefix(found->end);
  }
  text(rest, false);
  if (m_open) run().last_line = m_line;
}

log_file log_parser::finish(size_t lines) {
  flush_outside();
  m_file.lines = lines;
  return std::move(m_file);
}

void log_parser::apply(const frame &found) {
  switch (found.kind) {
    case frame_kind::start:
      return start();
    case frame_kind::board:
      return board(found.bits);
    case frame_kind::row:
      return begin_row(found.index);
    case frame_kind::error:
      return error(found.index);
    case frame_kind::done:
      return done(found.seconds);
    case frame_kind::verdict:
      return verdict(found.passed);
    case frame_kind::end:
      return end();
  }
}

// Dots come before the output of the test, and before "done".
void log_parser::text(std::string_view piece, bool before_done) {
  start_next_devices(take_first_dots(&piece, devices_left()));
  const size_t last_dots = before_done ? take_last_dots(&piece, devices_left()) : 0;
  if (!is_blank(piece)) add_message(piece);
  start_next_devices(std::min(last_dots, devices_left()));  // none where the message began another run
}

void log_parser::start() {
  const bool in_startup = m_open && !run().started && !run().asserted && !m_row;
  if (!in_startup) open_run();
  run().started = true;
}

void log_parser::board(uint64_t bits) {
  need_run();
  if (!run().change_bits) run().change_bits = bits;
}

void log_parser::begin_row(size_t row) {
  const auto later = [](const row_log &one) { return one.started; };
  if (m_open && std::any_of(run().rows.begin() + static_cast<std::ptrdiff_t>(row), run().rows.end(), later))
    close_run();
  need_run();
  end_row();
  const size_t first = first_case(row);
  m_row =
      row_progress{.row = row, .next = first, .end = first + rows[row].parts.size(), .current = first, .unclaimed = 0};
  run().rows[row].started = true;
}

void log_parser::error(size_t index) {
  need_run();
  const size_t row = row_of_case(index);
  if (!run().rows[row].started) begin_row(row);
  device_log &device = run().devices[index];
  device.failed = true;
  if (!m_row || m_row->row != row || index < m_row->current) return;
  if (index > m_row->current) {
    // Its dot is missing; what came since the last one is its own.
    run().devices[m_row->current].messages.move_to(&device.messages, m_row->unclaimed);
    start_next_devices(index + 1 - m_row->next);
  }
  device.started = device.ended = true;
  m_row->next = std::max(m_row->next, index + 1);
  m_row->unclaimed = device.messages.kept.size();
}

void log_parser::done(int32_t seconds) {
  if (!m_open || !m_row) return;
  run().rows[m_row->row].seconds = seconds;
  end_row();
}

void log_parser::verdict(bool passed) {
  if (!m_open) return;
  end_row();
  run().passed = passed;
}

void log_parser::end() {
  if (!m_open) return outside(m_line);
  end_row();
  run().completed = true;
  run().last_line = m_line;
  close_run();
}

// Whether the text shows that the program was started again.
bool log_parser::opens_run(std::string_view piece) const {
  if (m_open && (m_file.runs.back().started || m_file.runs.back().asserted)) return piece.starts_with(startup_texts[0]);
  return !m_open && std::ranges::any_of(startup_texts, [piece](auto text) { return contains(piece, text); });
}

void log_parser::open_run() {
  flush_outside();
  m_row.reset();
  m_open = true;
  ++m_file.run_count;
  run_log &opened = m_file.runs.emplace_back();
  opened.first_line = opened.last_line = m_line;
  if (m_file.runs.size() > log_file::runs_kept) m_file.runs.pop_front();
}

void log_parser::need_run() {
  if (m_open) return;
  open_run();
  note(m_line, m_line, "a run whose beginning is missing");
}

// A later line of the sequencer shows that the row came to its end, even if its own last line is missing.
void log_parser::end_row() {
  if (!m_row) return;
  run().rows[m_row->row].ended = true;
  for (size_t index = first_case(m_row->row); index < m_row->end; ++index)
    run().devices[index].started = run().devices[index].ended = true;
  m_row.reset();
}

// Starts devices of the row, as many as it has; each ends the one before.
void log_parser::start_next_devices(size_t count) {
  for (; count > 0; --count) {
    const size_t index = m_row->next++;
    if (index > first_case(m_row->row)) run().devices[index - 1].ended = true;
    run().devices[index].started = true;
    m_row->current = index;
    m_row->unclaimed = run().devices[index].messages.kept.size();
  }
}

void log_parser::add_message(std::string_view piece) {
  if (opens_run(piece)) open_run();
  if (!m_open) return outside(m_line);
  run().asserted |= contains(piece, assert_text) || contains(piece, diag_assert_text);
  if (!m_row) {
    const bool before_rows = std::ranges::none_of(run().rows, [](const row_log &row) { return row.started; });
    (before_rows ? run().startup : run().between).add(m_line, piece, m_line_ended);
    return;
  }
  device_log &device = run().devices[m_row->current];
  device.messages.add(m_line, piece, m_line_ended);
  if (!contains(piece, no_record_text)) return;
  // With something else in its line, dots may have been missed, and whose record it was is not known.
  if (piece != no_record_text) return lose_records_of_row();
  device.record_lost = true;
}

void log_parser::lose_records_of_row() {
  for (size_t index = first_case(m_row->row); index < m_row->end; ++index)
    run().devices[index].record_lost = true;
}

void log_parser::outside(size_t line) {
  if (m_outside_first == 0) m_outside_first = line;
  m_outside_last = line;
}

void log_parser::flush_outside() {
  if (m_outside_first != 0) note(m_outside_first, m_outside_last, "of no run");
  m_outside_first = 0;
}

void log_parser::note(size_t first, size_t last, std::string_view text) {
  ++m_file.note_count;
  if (m_file.notes.size() < log_file::notes_kept) m_file.notes.push_back({first, last, std::string(text)});
}

}  // namespace

void message_list::add(size_t line, std::string_view text, bool whole) {
  std::string shown = printable(text);
  if (kept.size() >= lines_kept || bytes + shown.size() > bytes_kept) {
    ++more;
    return;
  }
  bytes += shown.size();
  kept.push_back({line, std::move(shown), whole});
}

void message_list::move_to(message_list *other, size_t first) {
  for (size_t i = first; i < kept.size(); ++i) {
    bytes -= kept[i].text.size();
    other->add(kept[i].line, kept[i].text, kept[i].whole);
  }
  kept.resize(std::min(first, kept.size()));
}

bool message_list::contain(std::string_view text) const {
  return std::ranges::any_of(kept, [text](const message &one) { return contains(one.text, text); });
}

bool run_log::short_test() const {
  bool before_ended = false;
  bool left_out = false;
  for (size_t row = 0; row < rows.size(); ++row) {
    if (lab::rows[row].short_skips && rows[row].started) return false;
    if (lab::rows[row].short_skips) left_out = before_ended;
    if (!lab::rows[row].short_skips) before_ended = rows[row].seconds.has_value();
    if (left_out && rows[row].started) return true;
  }
  return false;
}

std::optional<size_t> run_log::stopped_at() const {
  if (completed) return std::nullopt;
  for (size_t index = 0; index < devices.size(); ++index) {
    if (devices[index].started && !devices[index].ended) return index;
  }
  return std::nullopt;
}

log_file parse_run_log(std::string_view text) {
  log_parser parser;
  return parser.finish(each_line(text, [&parser](const line_splitter::line &line) { parser.line(line); }));
}

log_file parse_run_log(std::istream &in) {
  log_parser parser;
  return parser.finish(each_line(in, [&parser](const line_splitter::line &line) { parser.line(line); }));
}

log_file read_run_log(const std::string &path, std::string *error) {
  if (path == "-") return parse_run_log(std::cin);
  auto file = open_file(path, error);
  return parse_run_log(file);
}

}  // namespace lab

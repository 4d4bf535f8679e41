#include "lab/run_log.h"

#include <algorithm>
#include <span>

#include "lab/text.h"

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
  size_t index = 0;  // of a row; a device's place
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
  const auto place = device ? place_of(*test, *device) : std::nullopt;
  found->index = place.value_or(0);
  return place.has_value();
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
    "mmap_map_addr(): ",
};
// clang-format on

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

// The first frame of the text. Lines can run into each other, so it may stand anywhere.
std::optional<frame> find_frame(std::string_view text) {
  constexpr char first_letters[] = "SPEdM";
  for (size_t at = text.find_first_of(first_letters); at != std::string_view::npos;
       at = text.find_first_of(first_letters, at + 1)) {
    if (const auto found = frame_at(text, at)) return found;
  }
  return std::nullopt;
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
  void error(size_t place);
  void done(int32_t seconds);
  void verdict(bool passed);
  void end();

  [[nodiscard]] bool opens_run(std::string_view piece) const;
  void open_run();
  void close_run() { open_ = false; }
  void need_run();
  void end_row();
  void start_device(size_t place);
  void add_message(std::string_view piece);
  void outside(size_t line);
  void flush_outside();
  void note(size_t first, size_t last, std::string_view text);

  run_log &run() { return file_.runs.back(); }
  [[nodiscard]] size_t devices_left() const { return next_ < row_end_ ? row_end_ - next_ : 0; }

  log_file file_;
  size_t line_ = 0;
  bool open_ = false;          // lines belong to the last run
  std::optional<size_t> row_;  // the row that is being run
  size_t next_ = 0;            // place of its next device
  size_t row_end_ = 0;         // place behind its last device
  size_t current_ = 0;         // place of the device that gets messages
  size_t unclaimed_ = 0;       // messages of the device from here on came after its dot or its ERROR line
  size_t outside_first_ = 0;   // lines of no run, 0 for none
  size_t outside_last_ = 0;
};

void log_parser::line(const line_splitter::line &line) {
  line_ = line.number;
  if (line.cut > 0) note(line_, line_, "longer than the limit, the rest of it is left out");
  if (!line.ended) note(line_, line_, "the log stops within this line");
  std::string_view rest = line.text;
  while (const auto found = find_frame(rest)) {
    text(rest.substr(0, found->begin), found->kind == frame_kind::done);
    apply(*found);
    rest.remove_prefix(found->end);
  }
  text(rest, false);
  if (open_) run().last_line = line_;
}

log_file log_parser::finish(size_t lines) {
  flush_outside();
  file_.lines = lines;
  return std::move(file_);
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

// Dots stand before what the test prints, and before "done".
void log_parser::text(std::string_view piece, bool before_done) {
  while (row_ && devices_left() > 0 && take(&piece, "."))
    start_device(next_);
  size_t behind = 0;
  while (before_done && row_ && behind < devices_left() && piece.ends_with('.')) {
    piece.remove_suffix(1);
    ++behind;
  }
  if (!is_blank(piece)) add_message(piece);
  while (behind-- > 0)
    start_device(next_);
}

void log_parser::start() {
  const bool in_startup = open_ && !run().started && !run().asserted && !row_;
  if (!in_startup) open_run();
  run().started = true;
}

void log_parser::board(uint64_t bits) {
  need_run();
  if (!run().change_bits) run().change_bits = bits;
}

void log_parser::begin_row(size_t row) {
  const auto later = [](const row_log &one) { return one.started; };
  if (open_ && std::any_of(run().rows.begin() + static_cast<std::ptrdiff_t>(row), run().rows.end(), later)) close_run();
  need_run();
  end_row();
  row_ = row;
  next_ = current_ = first_place(row);
  row_end_ = next_ + rows[row].parts.size();
  unclaimed_ = 0;
  run().rows[row].started = true;
}

void log_parser::error(size_t place) {
  need_run();
  size_t row = row_count - 1;
  while (first_place(row) > place)
    --row;
  if (!run().rows[row].started) begin_row(row);
  device_log &device = run().devices[place];
  device.failed = true;
  if (row_ != row || place < current_) return;
  if (place > current_) {
    // Its dot is missing; what came since the last one is its own.
    run().devices[current_].messages.move_to(&device.messages, unclaimed_);
    while (next_ <= place)
      start_device(next_);
  }
  device.started = device.ended = true;
  next_ = std::max(next_, place + 1);
  unclaimed_ = device.messages.kept.size();
}

void log_parser::done(int32_t seconds) {
  if (!open_ || !row_) return;
  run().rows[*row_].seconds = seconds;
  end_row();
}

void log_parser::verdict(bool passed) {
  if (!open_) return;
  end_row();
  run().passed = passed;
}

void log_parser::end() {
  if (!open_) return outside(line_);
  end_row();
  run().completed = true;
  run().last_line = line_;
  close_run();
}

// Whether the text shows that the program was started anew.
bool log_parser::opens_run(std::string_view piece) const {
  if (open_ && (file_.runs.back().started || file_.runs.back().asserted)) return piece.starts_with(startup_texts[0]);
  return !open_ && std::ranges::any_of(startup_texts, [piece](auto text) { return contains(piece, text); });
}

void log_parser::open_run() {
  flush_outside();
  row_.reset();
  open_ = true;
  ++file_.run_count;
  run_log &opened = file_.runs.emplace_back();
  opened.first_line = opened.last_line = line_;
  if (file_.runs.size() > log_file::runs_kept) file_.runs.pop_front();
}

void log_parser::need_run() {
  if (open_) return;
  open_run();
  note(line_, line_, "a run whose beginning is missing");
}

// A later line of the sequencer shows that the row came to its end, even if its own last line is missing.
void log_parser::end_row() {
  if (!row_) return;
  run().rows[*row_].ended = true;
  for (size_t place = first_place(*row_); place < row_end_; ++place)
    run().devices[place].started = run().devices[place].ended = true;
  row_.reset();
}

void log_parser::start_device(size_t place) {
  if (place > first_place(*row_)) run().devices[place - 1].ended = true;
  run().devices[place].started = true;
  current_ = place;
  next_ = place + 1;
  unclaimed_ = run().devices[place].messages.kept.size();
}

void log_parser::add_message(std::string_view piece) {
  if (opens_run(piece)) open_run();
  if (!open_) return outside(line_);
  run().asserted |= contains(piece, assert_text) || contains(piece, diag_assert_text);
  if (!row_) {
    const bool before_rows = std::ranges::none_of(run().rows, [](const row_log &row) { return row.started; });
    (before_rows ? run().startup : run().between).add(line_, piece);
    return;
  }
  device_log &device = run().devices[current_];
  device.messages.add(line_, piece);
  device.record_lost |= piece == "Could not open file post_results.txt";
}

void log_parser::outside(size_t line) {
  if (outside_first_ == 0) outside_first_ = line;
  outside_last_ = line;
}

void log_parser::flush_outside() {
  if (outside_first_ != 0) note(outside_first_, outside_last_, "of no run");
  outside_first_ = 0;
}

void log_parser::note(size_t first, size_t last, std::string_view text) {
  ++file_.note_count;
  if (file_.notes.size() < log_file::notes_kept) file_.notes.push_back({first, last, std::string(text)});
}

}  // namespace

void message_list::add(size_t line, std::string_view text) {
  std::string shown = printable(text);
  if (kept.size() >= lines_kept || bytes + shown.size() > bytes_kept) {
    ++more;
    return;
  }
  bytes += shown.size();
  kept.push_back({line, std::move(shown)});
}

void message_list::move_to(message_list *other, size_t first) {
  for (size_t i = first; i < kept.size(); ++i) {
    bytes -= kept[i].text.size();
    other->add(kept[i].line, kept[i].text);
  }
  kept.resize(std::min(first, kept.size()));
}

bool message_list::contain(std::string_view text) const {
  return std::ranges::any_of(kept, [text](const message &one) { return contains(one.text, text); });
}

bool run_log::short_test() const {
  bool left_out = false;
  bool later = false;
  for (size_t row = 0; row < rows.size(); ++row) {
    if (lab::rows[row].short_skips && rows[row].started) return false;
    left_out |= lab::rows[row].short_skips;
    later |= left_out && rows[row].started;
  }
  return later;
}

std::optional<size_t> run_log::stopped_at() const {
  if (completed) return std::nullopt;
  for (size_t place = 0; place < devices.size(); ++place) {
    if (devices[place].started && !devices[place].ended) return place;
  }
  return std::nullopt;
}

log_file parse_run_log(std::string_view text) {
  log_parser parser;
  line_splitter lines([&parser](const line_splitter::line &line) { parser.line(line); });
  lines.feed(text);
  lines.finish();
  return parser.finish(lines.lines());
}

log_file parse_run_log(std::istream &in) {
  log_parser parser;
  line_splitter lines([&parser](const line_splitter::line &line) { parser.line(line); });
  feed_stream(in, [&lines](std::string_view piece) { lines.feed(piece); });
  lines.finish();
  return parser.finish(lines.lines());
}

}  // namespace lab

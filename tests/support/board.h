// board.h: the simulated board in the test's own process.
#pragma once

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "sim/base/fault_counts.h"
#include "sim/board/board.h"
#include "sim/bus/layout.h"
#include "tests/support/host.h"
#include "tests/support/text.h"

// The options of a board on a state directory. Each of `more` is one of board-sim's if it begins with "--", else a
// fault. "--trace" alone logs to "trace" in the state directory.
inline sim::options board_options(const std::filesystem::path &state, const std::vector<const char *> &more) {
  std::vector<std::string> args{"--state=" + state.string()};
  for (const std::string option : more) {
    args.push_back(option.starts_with("--") ? option : "--fault=" + option);
    if (option == "--trace") args.back() += "=" + (state / "trace").string();
  }
  std::string error;
  auto parsed = sim::options_parse(args, &error);
  if (parsed) return *std::move(parsed);
  (void)fprintf(stderr, "%s\n", error.c_str());
  abort();
}

// A running board on a state directory of its own; options as above.
class test_board {
 public:
  explicit test_board(const std::vector<const char *> &more = {}, std::optional<uint32_t> card = {}) {
    start(more, card);
  }
  test_board(const test_board &) = delete;
  test_board &operator=(const test_board &) = delete;
  ~test_board() { sim::board_stop(); }

  // Power-on again, perhaps with other options, on the same state.
  void start(const std::vector<const char *> &more = {}, std::optional<uint32_t> card = {}) const {
    auto parsed = board_options(m_dir.path(), more);
    if (card) parsed.card = *card;
    std::string error;
    sim::fault_counts::forget(parsed);
    if (sim::board_start(parsed, &error)) return;
    (void)fprintf(stderr, "%s\n", error.c_str());
    abort();
  }

  [[nodiscard]] std::filesystem::path file(const char *name) const { return m_dir.path() / name; }
  [[nodiscard]] std::string contents(const char *name) const { return read_file(file(name)); }

  // How often each fault fired.
  [[nodiscard]] std::vector<uint64_t> fired() const {
    const auto text = contents("faults");
    std::vector<uint64_t> counts(text.size() / sizeof(uint64_t));
    if (!counts.empty()) std::memcpy(counts.data(), text.data(), text.size());
    return counts;
  }

  // The cycles in the log of "--trace" since the last call, without their times.
  std::vector<std::string> log() {
    const auto text = contents("trace").substr(m_log_read);
    m_log_read += text.size();
    return lines_of(bus_cycles(text));
  }

 private:
  temp_dir m_dir;
  size_t m_log_read = 0;
};

// A fault that changes nothing but the highest word, but has every access to NVRAM 0 trapped.
inline constexpr const char *trapping = "nvram-cell-stuck instance=0 offset=0x7FFE bit=0 level=0";

enum window_number : size_t { nvram0, nvram1, nvram2, flash };

// Maps a window of the local bus as drivers do.
template <class T>
volatile T *map_window(window_number number) {
  const auto &window = sim::windows[number];
  const unique_fd fd(open("/dev/mem", O_RDWR | O_DSYNC | O_CLOEXEC));
  void *const at =
      mmap(nullptr, window.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), static_cast<off_t>(window.base));
  EXPECT_NE(at, MAP_FAILED);
  return static_cast<volatile T *>(at);
}

// The short name of stdout_of in the tests of POST's own lines.
inline constexpr auto &printed = stdout_of;

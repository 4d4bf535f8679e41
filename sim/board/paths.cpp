#include "sim/board/paths.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstring>
#include <vector>

#include "sim/base/files.h"
#include "sim/base/real.h"
#include "sim/board/cpuinfo.h"
#include "sim/board/i2c_board.h"
#include "sim/board/pci_list.h"

namespace sim {

namespace {

struct path_row {
  const char *path;
  bool tree;                          // with all that lies below
  std::optional<fault_id> missing;    // it does not exist
  std::optional<fault_id> failing;    // opening fails with the errno that the fault names
  std::optional<fault_id> read_only;  // it cannot be written
  sim::device device;
  std::string (*contents)(const options &opts) = nullptr;
};

using id = fault_id;
constexpr std::nullopt_t none = std::nullopt;

// With a rate that no fault names, so that each fault of the rate changes the file.
std::string cpuinfo_of_some_rate(const options &opts) {
  auto others = opts;
  others.short_waits = false;
  return cpuinfo(others, UINT64_MAX);
}

// clang-format off
constexpr std::array path_rows{std::to_array<path_row>({
    // path                   tree   missing               failing                  read-only               device         contents
    {"/post",                 true,  id::post_missing,     none,                    none,                   device::none},
    {"/var/lock",             true,  id::lock_dir_missing, none,                    id::lock_dir_read_only, device::none},
    {"/var/lib/post-locate",  true,  none,                 none,                    none,                   device::none},
    {"/proc/bus/pci/devices", false, none,                 id::pci_list_unreadable, none,                   device::none,  pci_list},
    {"/proc/cpuinfo",         false, id::cpuinfo_missing,  none,                    none,                   device::none,  cpuinfo_of_some_rate},
    {"/dev/sprom",            false, id::sprom_absent,     none,                    none,                   device::sprom},
    {"/dev/mem",              false, none,                 id::mem_absent,          none,                   device::mem},
})};
// clang-format on

constexpr std::string_view i2c_prefix = "/dev/i2c-";

// In every place where the machine has its own, the board has this one.
constexpr std::array<std::string_view, 2> ethtool_ends{"/bin/ethtool", "/sbin/ethtool"};

// Characters of a command beside which a path may begin or end.
constexpr std::string_view delimiters = " \t\n'\"<>|&;()`=:,";

const fault *find_fault(const options &opts, std::optional<fault_id> wanted) {
  return wanted ? opts.find(*wanted) : nullptr;
}

// Resolves empty, "." and ".." parts of an absolute path, using only its text.
std::string normal(std::string_view path) {
  std::vector<std::string_view> parts;
  while (!path.empty()) {
    path.remove_prefix(1);
    const auto end = std::min(path.find('/'), path.size());
    const auto part = path.substr(0, end);
    path.remove_prefix(end);
    if (part == ".." && !parts.empty()) parts.pop_back();
    if (!part.empty() && part != "." && part != "..") parts.push_back(part);
  }
  std::string joined;
  for (const auto part : parts)
    joined.append("/").append(part);
  return joined;
}

const path_row *row_of(std::string_view path) {
  for (const auto &row : path_rows) {
    const auto length = std::strlen(row.path);
    if (!path.starts_with(row.path)) continue;
    if (path.size() == length || (row.tree && path[length] == '/')) return &row;
  }
  return nullptr;
}

// What a fault takes away is looked for where nothing is ever made.
constexpr std::string_view nowhere = "/missing";

// The place in the state directory.
std::string place(const options &opts, bool missing, std::string_view path) {
  return opts.state + std::string(missing ? nowhere : "") + std::string(path);
}

// The place of a path that leads nowhere, if it led somewhere.
std::string place_if_not_missing(const options &opts, const redirection &to) {
  return opts.state + to.path.substr(opts.state.size() + nowhere.size());
}

const fault *absent_bus(const options &opts, uint32_t number) {
  const auto found = std::ranges::find_if(
      opts.faults, [&](const fault &f) { return f.id == fault_id::i2c_bus_absent && f.get(parm::bus) == number; });
  return found == opts.faults.end() ? nullptr : &*found;
}

bool is_delimiter(char c) {
  return delimiters.find(c) != std::string_view::npos;
}

// Whether a word of a command calls this program.
bool calls(std::string_view text, std::string_view program) {
  for (auto at = text.find(program); at != std::string_view::npos; at = text.find(program, at + 1)) {
    const auto end = at + program.size();
    const bool begins = at == 0 || text[at - 1] == '/' || is_delimiter(text[at - 1]);
    if (begins && (end == text.size() || is_delimiter(text[end]))) return true;
  }
  return false;
}

std::optional<redirection> redirect_i2c(const options &opts, std::string_view path) {
  auto digits = path;
  digits.remove_prefix(i2c_prefix.size());
  uint32_t number = 0;
  const char *const end = digits.data() + digits.size();
  const auto [stop, result] = std::from_chars(digits.data(), end, number);
  if (result != std::errc{} || stop != end || (digits.size() > 1 && digits[0] == '0')) return std::nullopt;
  const auto present = i2c_bus_numbers(opts);
  const bool missing = std::ranges::find(present, number) == present.end();
  return redirection{place(opts, missing, path), 0, device::i2c, number, absent_bus(opts, number)};
}

std::optional<redirection> redirect_normal(const options &opts, std::string_view path, bool writing) {
  if (path.starts_with(i2c_prefix)) return redirect_i2c(opts, path);
  if (std::ranges::any_of(ethtool_ends, [&](auto end) { return path.ends_with(end); }))
    return redirection{.path = place(opts, opts.find(id::ethtool_missing) != nullptr, "/bin/ethtool")};
  const auto *const row = row_of(path);
  if (row == nullptr) return std::nullopt;
  const auto *const missing = find_fault(opts, row->missing);
  redirection to{place(opts, missing != nullptr, path), 0, row->device, 0, missing, nullptr, row->contents};
  if ((to.refused = find_fault(opts, row->failing)) != nullptr) {
    to.error = to.refused->error();
  } else if (writing && (to.refused = find_fault(opts, row->read_only)) != nullptr) {
    to.error = EROFS;
  }
  return to;
}

// What the shell has read of a command so far: the kind of quotes that are open, '\0' for none.
class shell_quotes {
 public:
  // Takes one character, or two where the first is a backslash that hides the second. Returns what it took.
  std::string_view take(std::string_view rest) {
    const char c = rest[0];
    if (m_open == '\0' && (c == '\'' || c == '"'))
      m_open = c;
    else if (m_open == c)
      m_open = '\0';
    return rest.substr(0, c == '\\' && m_open != '\'' ? 2 : 1);
  }

  // A text as it must be written here to be read as it is.
  [[nodiscard]] std::string quoted(std::string_view text) const {
    constexpr std::string_view safe = "/_-.+,:@%=ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    std::string out;
    for (const char c : text) {
      const bool special = m_open == '\0' || (m_open == '"' && std::strchr("\"$`\\", c) != nullptr);
      if (safe.find(c) == std::string_view::npos) {
        if (m_open == '\'' && c == '\'')
          out += "'\\'";
        else if (special)
          out += '\\';
      }
      out += c;
    }
    return out;
  }

 private:
  char m_open = '\0';
};

// Whether what follows this part of a command is written to.
bool redirects_output(std::string_view command) {
  const auto last = command.find_last_not_of(' ');
  return last != std::string_view::npos && command[last] == '>';
}

}  // namespace

std::optional<redirection> redirect(const options &opts, std::string_view path, bool writing) {
  std::string whole(path);
  char here[PATH_MAX];
  if (!path.empty() && path[0] != '/' && ::syscall(SYS_getcwd, here, sizeof(here)) > 0)
    whole = std::string(here) + "/" + whole;
  if (!whole.starts_with('/')) return std::nullopt;
  const auto clean = normal(whole);
  // A state directory may lie in a tree of the board. What is in its place there stays in it.
  if (clean.starts_with(opts.state) && redirect_normal(opts, clean.substr(opts.state.size()), false))
    return std::nullopt;
  auto to = redirect_normal(opts, clean, writing);
  // The way out of a tree of the board does not lead over the machine's.
  if (!to && row_of(whole) != nullptr) return redirection{.path = clean.empty() ? "/" : clean};
  return to;
}

void count_faults(const options &opts, const redirection &to, path_use use) {
  if (to.missing != nullptr) {
    const bool would_be_met = use == path_use::change || to.device != device::none;
    if (would_be_met || file_exists(place_if_not_missing(opts, to))) to.missing->fired();
    return;
  }
  if (to.refused != nullptr && use != path_use::ask) to.refused->fired();
  if (to.refused != nullptr || use != path_use::read) return;
  if (to.contents == nullptr) return;
  const auto whole = to.contents(opts);
  for (const auto &f : opts.faults) {
    auto without = opts;
    std::erase_if(without.faults, [&](const fault &other) { return other.text == f.text; });
    if (to.contents(without) != whole) f.fired();
  }
}

void count_program_faults(const options &opts, std::string_view program) {
  const auto *const f = opts.find(fault_id::ethtool_missing);
  if (f != nullptr && calls(program, "ethtool")) f->fired();
}

std::string board_place(const options &opts, const std::string &path) {
  const auto to = redirect(opts, path, false);
  return to ? to->path : path;
}

std::string redirect_command(const options &opts, std::string_view command) {
  count_program_faults(opts, command);
  std::string out;
  shell_quotes quotes;
  bool may_begin = true;  // a path, here
  while (!command.empty()) {
    const auto word = command.substr(0, command.find_first_of(delimiters));
    if (const auto to = may_begin && command[0] == '/' ? redirect(opts, word, false) : std::nullopt) {
      count_faults(opts, *to, redirects_output(out) ? path_use::change : path_use::read);
      out += quotes.quoted(to->path);
      may_begin = false;
      command.remove_prefix(word.size());
      continue;
    }
    const auto taken = quotes.take(command);
    may_begin = taken.size() == 1 && is_delimiter(taken[0]);
    out += taken;
    command.remove_prefix(taken.size());
  }
  return out;
}

}  // namespace sim

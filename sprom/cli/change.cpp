#include "sprom/cli/change.h"

#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>

#include "platform/mfgd/cmn_lib/diag_util/signal_hold.h"
#include "sprom/base/file.h"
#include "sprom/board/change_bits.h"
#include "sprom/board/target.h"
#include "sprom/cli/backup.h"
#include "sprom/cli/guards.h"
#include "sprom/cli/report.h"
#include "sprom/cli/values.h"

namespace tool {
namespace {

// The outcome of a command, for --json.
struct result_t {
  std::optional<target_t> target = {};
  const char *verdict = "refused";  // nothing was written; else "failed", "written", "unchanged" or "planned"
  size_t planned = 0;               // bytes to write
  size_t written = 0;
  std::optional<bool> reads_back = {};  // as what was to be written
  std::string backup = {};              // the old image's file
  json_t changes = json_t::array();
};

json_t result_json(const result_t &result, exit_code code) {
  json_t json = json_t::object();
  if (result.target) json = place_of(*result.target);
  json["good"] = code == EXIT_OK;
  json["verdict"] = result.verdict;
  json["bytes_planned"] = result.planned;
  json["bytes_written"] = result.written;
  json["reads_back"] = result.reads_back ? json_t(*result.reads_back) : json_t(nullptr);
  json["backup"] = result.backup.empty() ? json_t(nullptr) : json_t(json_text(result.backup));
  json["changes"] = result.changes;
  json["messages"] = json_t::array();
  for (const std::string &message : complaints())
    json["messages"].push_back(json_text(message));
  return json;
}

// Runs a command that fills in its result. With --json, what it says goes nowhere, or to standard error if it asks.
template <typename F>
exit_code reported(const options_t &options, F command) {
  const bool asks = !options.has(OPT_YES | OPT_DRY_RUN);
  if (options.has(OPT_JSON)) say_on(asks ? stderr : nullptr);
  result_t result;
  const exit_code code = command(result);
  if (!options.has(OPT_JSON) || code == EXIT_USAGE) return code;
  (void)print_json(result_json(result, code), code);
  if (result.target) repeat_backup(*result.target, result.backup);
  return code;
}

// The next line of standard input, without its end.
std::string answer_line() {
  std::string line;
  for (int c = getchar(); c != EOF && c != '\n'; c = getchar())
    line += static_cast<char>(c);
  return line;
}

// "y" or "yes", and nothing else but blanks.
bool is_yes(std::string_view answer) {
  constexpr std::string_view blanks = " \t\r";
  answer.remove_prefix(std::min(answer.find_first_not_of(blanks), answer.size()));
  answer = answer.substr(0, answer.find_last_not_of(blanks) + 1);
  const auto same = [](char c, char lower) { return (c | 0x20) == lower; };
  return std::ranges::equal(answer, std::string_view{"y"}, same) ||
         std::ranges::equal(answer, std::string_view{"yes"}, same);
}

// Asks on the terminal; without one the answer is no, after a message.
bool is_confirmed(const options_t &options, const target_t &target) {
  if (options.has(OPT_YES)) return true;
  const std::string label = target.label();
  if (isatty(STDIN_FILENO) == 0) {
    complain("%s: not written: there is no terminal to ask on; --yes writes without asking", label.c_str());
    return false;
  }
  (void)fflush(stdout);
  (void)fprintf(stderr, "Write to %s? [y/N] ", label.c_str());
  if (is_yes(answer_line())) return true;
  complain("%s: not written", label.c_str());
  return false;
}

// Writing.

// What the file is in which a target's new bytes are.
const char *word_of(const target_t &target) {
  return target.is_raw ? "file" : "image";
}

bool is_protection_back(const writing_t &writing) {
  return writing.restored >= 0 &&
         (writing.after.state == protect_state::on || writing.after.state == protect_state::none);
}

// Messages about the protection before the write.
void report_lifting(const std::string &label, const std::string &where, const writing_t &writing) {
  if (writing.lifted < 0)
    complain("%s: the write protection (%s) cannot be lifted: %s", label.c_str(), where.c_str(),
             error_text(writing.lifted).c_str());
  else if (writing.before.state == protect_state::on)
    complain("%s: the write protection (%s) was switched off, but stays on", label.c_str(), where.c_str());
}

// Messages about the protection after the write.
void report_restoring(const std::string &label, const std::string &where, const writing_t &writing) {
  if (writing.restored < 0)
    return complain("%s: the write protection (%s) cannot be restored: %s", label.c_str(), where.c_str(),
                    error_text(writing.restored).c_str());
  if (writing.after.state == protect_state::off)
    complain("%s: the write protection (%s) was switched on, but stays off", label.c_str(), where.c_str());
  if (writing.after.error < 0)
    complain("%s: whether the write protection (%s) is on again cannot be read: %s", label.c_str(), where.c_str(),
             error_text(writing.after.error).c_str());
}

// A message for each step of the write that failed. A write to a protected SPROM fails for that reason only.
void report_failures(const target_t &target, const writing_t &writing) {
  const std::string label = label_of(*target.entry);
  const std::string where = protector_text(*target.entry);
  report_lifting(label, where, writing);
  if (writing.transfer.result < 0 && writing.before.state != protect_state::on)
    complain("%s: writing byte %u (EEPROM offset 0x%04x) failed after %zu of %zu bytes: %s", label.c_str(),
             writing.transfer.byte, target.start() + writing.transfer.byte, writing.done, writing.planned,
             error_text(writing.transfer.result).c_str());
  report_restoring(label, where, writing);
}

// Compares what the SPROM holds now with what it should; false after a message.
bool is_read_back(const options_t &options, const target_t &target, const image_t &before, const image_t &after,
                  const writing_t &writing, result_t &result) {
  const std::string label = target.label();
  image_t now;
  if (read_target(options, target, now) != EXIT_OK) {
    complain("%s: what it holds now is not known", label.c_str());
    return false;
  }
  const auto [count, first] = difference(after, now);
  result.reads_back = count == 0;
  if (count == 0) return true;
  complain("%s: reads back with %zu of %zu bytes different from the %s, the first at byte %zu", label.c_str(), count,
           after.size(), word_of(target), first);
  if (now != before) return false;
  complain("%s: nothing has changed%s", label.c_str(),
           writing.transfer.result >= 0 ? "; it may be write-protected" : "");
  return false;
}

exit_code write_to_sprom(const options_t &options, const target_t &target, const image_t &before, const image_t &after,
                         result_t &result) {
  (void)fflush(stdout);
  const signal_hold::scope hold;
  result.verdict = "failed";
  const writing_t writing = write_bytes(*target.entry, target.start(), target.images(), before, after);
  result.written = writing.done;
  report_failures(target, writing);
  if (!is_read_back(options, target, before, after, writing, result)) return EXIT_FAILED;
  if (writing.transfer.result < 0 || !is_protection_back(writing)) {
    complain("%s: it reads back as the %s, although the %s failed", target.label().c_str(), word_of(target),
             writing.transfer.result < 0 ? "write" : "write protection");
    return EXIT_FAILED;
  }
  result.verdict = "written";
  say("%s: %zu bytes written; it reads back as the %s", target.name().c_str(), writing.done, word_of(target));
  (void)fflush(stdout);
  return EXIT_OK;
}

exit_code write_over_file(const target_t &target, const image_t &image, result_t &result) {
  result.verdict = "failed";
  if (const exit_code code = write_to_file(target, image); code != EXIT_OK) return code;
  result.verdict = "written";
  result.written = result.planned;
  say("%s: written", target.label().c_str());
  return EXIT_OK;
}

// There is nothing to write; a protection that an earlier run left off is switched on all the same.
exit_code leave(const options_t &options, const target_t &target, result_t &result) {
  result.verdict = "unchanged";
  result.reads_back = true;
  say("%s: holds this %s already; nothing to write", target.label().c_str(), target.is_raw ? "content" : "image");
  if (!target.entry || options.has(OPT_DRY_RUN)) return EXIT_OK;
  const protection_t now = protection_of(*target.entry);
  if (now.state == protect_state::on || now.state == protect_state::none) return EXIT_OK;
  const signal_hold::scope hold;
  if (!restore_protection(*target.entry)) return EXIT_FAILED;
  say("%s: its write protection was off and is on again", target.name().c_str());
  return EXIT_OK;
}

// Makes the new image from the old one.
using maker_t = std::function<exit_code(const image_t &before, image_t &after)>;

// Nobody has to wait for an answer: the question gives the lock up, and what was shown must still be there after it.
exit_code confirm(const options_t &options, const target_t &target, const image_t &before,
                  std::optional<chip_lock_t> &lock) {
  if (options.has(OPT_YES)) return EXIT_OK;
  lock.reset();
  if (!is_confirmed(options, target)) return EXIT_FAILED;
  image_t now;
  exit_code code = lock_writing(options, target, "not written", lock);
  if (code == EXIT_OK) code = read_target_twice(options, target, now);
  if (code != EXIT_OK || now == before) return code;
  complain("%s: not written: it is no longer what was shown", target.label().c_str());
  return EXIT_FAILED;
}

// All that can be refused before the target is read.
exit_code check_change(const options_t &options, const target_t &target, const std::string *source) {
  exit_code code = check_writing(options, target);
  if (code == EXIT_OK) code = check_backup(options, target, source);
  if (code == EXIT_OK && target.entry) code = check_protect_pin(options, *target.entry, "not written");
  return code;
}

// Reads the old image, shows what changes, asks, keeps a backup, writes, reads back, reports.
//   source  the file with the new image, or null
exit_code change(const options_t &options, const target_t &target, const std::string *source, const maker_t &make,
                 result_t &result) {
  result.target = target;
  std::optional<chip_lock_t> lock;
  exit_code code = check_change(options, target, source);
  if (code == EXIT_OK && !options.has(OPT_DRY_RUN)) code = lock_writing(options, target, "not written", lock);
  image_t before;
  if (code == EXIT_OK) code = read_target_twice(options, target, before);
  image_t after = before;
  if (code == EXIT_OK) code = make(before, after);
  if (code != EXIT_OK) return code;
  const auto lines = change_lines(target, before, after);
  if (lines.empty()) return leave(options, target, result);

  const size_t differing = difference(before, after).count;
  result.planned = target.entry ? plan_write(target.images(), before, after).size() : differing;
  result.changes = changes_json(target, before, after);
  say("%s: %s%s, %u bytes", target.label().c_str(), target.is_raw ? "" : target.kind->title,
      target.is_raw ? "EEPROM" : " image", target.size());
  for (const std::string &line : lines)
    say("  %s", line.c_str());
  if (!is_same_kind(options, target, before) || !is_same_card(options, target, before, after)) return EXIT_FAILED;
  if (options.has(OPT_DRY_RUN)) return result.verdict = "planned", EXIT_OK;
  (void)signal(SIGPIPE, SIG_IGN);  // output that nobody reads is an error to report, not an end in the middle
  code = confirm(options, target, before, lock);
  if (code == EXIT_OK) code = keep_backup(options, target, before, result.backup);
  if (code != EXIT_OK) return code;
  tell_backup(target, result.backup);
  return target.entry ? write_to_sprom(options, target, before, after, result) : write_over_file(target, after, result);
}

bool is_standard_target(const options_t &options) {
  return options.file && *options.file == standard_stream;
}

// A whole EEPROM from a file of its size.
exit_code write_raw(const options_t &options, result_t &result) {
  if (options.file) return complain_usage("--raw writes a SPROM's EEPROM, not a file");
  if (options.args.size() != 2) return complain_usage("--raw needs the SPROM whose EEPROM to write");
  target_t target;
  if (const exit_code code = find_target(options, &options.args.front(), target); code != EXIT_OK) return code;
  result.target = target;
  const std::string &path = options.args.back();
  const std::string label = file_label(path);
  image_t content;
  if (const int error = read_file(path, size_t{target.size()} + 1, content); error != 0) {
    complain("%s: cannot read: %s", label.c_str(), error_text(error).c_str());
    return EXIT_FAILED;
  }
  if (content.size() != target.size()) {
    complain("%s: %s%zu bytes, but the EEPROM has %u", label.c_str(),
             content.size() > target.size() ? "more than " : "", std::min<size_t>(content.size(), target.size()),
             target.size());
    return EXIT_FAILED;
  }
  if (!is_content_accepted(options, label, target, content)) return EXIT_FAILED;
  const auto make = [&](const image_t &, image_t &after) { return after = content, EXIT_OK; };
  return change(options, target, &path, make, result);
}

exit_code write_one(const options_t &options, result_t &result) {
  if (is_standard_target(options)) return complain_usage("--file - can only be read");
  const std::string &path = options.args.back();
  const std::string *name = options.args.size() == 2 ? &options.args.front() : nullptr;
  target_t target;
  if (name != nullptr) {
    if (const exit_code code = find_target(options, name, target); code != EXIT_OK) return code;
    result.target = target;
  }
  options_t on_file = options;
  on_file.file = path;
  target_t source;
  exit_code code = name != nullptr ? find_only(on_file, *target.kind, source) : find_target(on_file, nullptr, source);
  if (code != EXIT_OK) return code;
  image_t image;
  (void)try_read(options, source, image);  // from memory
  if (!is_accepted(options, source.label(), *source.kind, image)) return EXIT_FAILED;
  if (name == nullptr) code = find_only(options, *source.kind, target);
  if (code != EXIT_OK) return code;
  const auto make = [&](const image_t &, image_t &after) { return after = image, EXIT_OK; };
  return change(options, target, &path, make, result);
}

exit_code edit(const options_t &options, result_t &result) {
  if (options.fields.empty() && !options.from) return complain_usage("no --FIELD=VALUE to change, and no --from");
  if (is_standard_target(options)) return complain_usage("--file - can only be read");
  target_t target;
  const std::string *name = options.args.empty() ? nullptr : &options.args.front();
  if (const exit_code code = find_target(options, name, target); code != EXIT_OK) return code;
  const auto make = [&](const image_t &before, image_t &after) {
    if (const exit_code code = set_fields(options, *target.kind, after); code != EXIT_OK) return code;
    // A new checksum would hide that the old bytes were damaged.
    return is_accepted(options, target.label(), *target.kind, before) ? EXIT_OK : EXIT_FAILED;
  };
  return change(options, target, nullptr, make, result);
}

}  // namespace

exit_code run_write(const options_t &options) {
  return reported(options, [&](result_t &result) {
    return options.has(OPT_RAW) ? write_raw(options, result) : write_one(options, result);
  });
}

exit_code run_edit(const options_t &options) {
  return reported(options, [&](result_t &result) { return edit(options, result); });
}

exit_code run_make(const options_t &options) {
  const bool has_file_argument = options.args.size() == 2;
  if (options.file && has_file_argument) return complain_usage("--file replaces the argument FILE");
  if (!options.file && !has_file_argument) return complain_usage("the FILE to make is missing");
  const kind_t *kind = kind_argument(options.args.front());
  if (kind == nullptr) return EXIT_USAGE;
  image_t image = new_image(*kind);
  if (const exit_code code = set_fields(options, *kind, image); code != EXIT_OK) return code;
  return save_image(options.file ? *options.file : options.args.back(), image);
}

}  // namespace tool

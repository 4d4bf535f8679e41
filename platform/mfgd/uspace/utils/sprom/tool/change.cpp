#include "platform/mfgd/uspace/utils/sprom/tool/change.h"

#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <functional>

#include "platform/mfgd/uspace/utils/sprom/tool/chip_lock.h"
#include "platform/mfgd/uspace/utils/sprom/tool/file.h"
#include "platform/mfgd/uspace/utils/sprom/tool/signals.h"
#include "platform/mfgd/uspace/utils/sprom/tool/target.h"
#include "platform/mfgd/uspace/utils/sprom/tool/values.h"

namespace tool {
namespace {

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
  std::array<char, 16> answer{};
  const bool has_answer = fgets(answer.data(), answer.size(), stdin) != nullptr;
  if (has_answer && (answer[0] == 'y' || answer[0] == 'Y')) return true;
  complain("%s: not written", label.c_str());
  return false;
}

// Refuses an image with bad blocks unless it is forced.
bool is_accepted(const options_t &options, const std::string &label, const kind_t &kind, const image_t &image) {
  const verdict_t verdict = verify_image(kind, image);
  if (verdict.is_good) return true;
  (void)fflush(stdout);
  (void)fputs(verdict.lines.c_str(), stderr);
  if (options.has(OPT_FORCE)) return true;
  complain("%s: a bad image; nothing is written without --force", label.c_str());
  return false;
}

// Backup of the old image.

// A name that no file has yet: the SPROM, the day and the time; "" after a message.
std::string default_backup(const target_t &target, const image_t &image) {
  const char *directory = getenv("SPROM_BACKUP_DIR");
  std::string name = directory == nullptr ? "/var/tmp" : directory;
  name += "/sprom-";
  for (const char c : target.name()) {
    if (c != ' ') name += c;
  }
  const time_t now = time(nullptr);
  struct tm local {};
  std::array<char, 24> stamp;
  (void)strftime(stamp.data(), stamp.size(), "-%Y%m%d-%H%M%S", localtime_r(&now, &local));
  name += stamp.data();
  for (int number = 1;; ++number) {
    std::string path = name;
    if (number != 1) path += "-" + std::to_string(number);
    path += ".bin";
    const int error = create_file(path, image);
    if (error == 0) return path;
    if (error == EEXIST) continue;
    complain("%s: not written: no backup of the old image: %s: %s; --backup names another file", target.label().c_str(),
             shown(path).c_str(), error_text(error).c_str());
    return "";
  }
}

// The old image of a SPROM is kept unless that is declined, a file's where that is asked for. False after a message.
bool is_backed_up(const options_t &options, const target_t &target, const image_t &image) {
  if (options.no_backup || (!options.backup && !target.entry)) return true;
  if (options.backup && save_image(*options.backup, image) != EXIT_OK) {
    complain("%s: not written: no backup of the old image", target.label().c_str());
    return false;
  }
  const std::string path = options.backup ? *options.backup : default_backup(target, image);
  if (path.empty()) return false;
  (void)printf("%s: the old image is in %s\n", target.name().c_str(), file_label(path).c_str());
  return true;
}

// Writing.

// Tells what went wrong with the write and the protection; true if nothing did.
bool is_told_good(const entry_t &entry, const writing_t &writing) {
  const std::string label = label_of(entry);
  const std::string where = protector_text(entry);
  const bool is_held = writing.before.state == protect_state::on;
  if (writing.lifted < 0)
    complain("%s: the write protection (%s) cannot be lifted: %s", label.c_str(), where.c_str(),
             error_text(writing.lifted).c_str());
  if (writing.lifted >= 0 && is_held)
    complain("%s: the write protection (%s) was switched off, but stays on", label.c_str(), where.c_str());
  const bool is_written = writing.transfer.result >= 0;
  if (!is_written && !is_held)
    complain("%s: writing byte %u (EEPROM offset 0x%04x) failed after %zu of %zu bytes: %s", label.c_str(),
             writing.transfer.byte, entry.dev().base + writing.transfer.byte, writing.done, writing.planned,
             error_text(writing.transfer.result).c_str());
  if (writing.restored < 0)
    complain("%s: the write protection (%s) cannot be restored: %s", label.c_str(), where.c_str(),
             error_text(writing.restored).c_str());
  if (writing.restored >= 0 && writing.after.state == protect_state::off)
    complain("%s: the write protection (%s) was switched on, but stays off", label.c_str(), where.c_str());
  if (writing.restored >= 0 && writing.after.error < 0)
    complain("%s: whether the write protection (%s) is on again cannot be told: %s", label.c_str(), where.c_str(),
             error_text(writing.after.error).c_str());
  return is_written && writing.restored >= 0 &&
         (writing.after.state == protect_state::on || writing.after.state == protect_state::none);
}

// Compares what the SPROM holds now with what it should; false after a message.
bool is_read_back(const options_t &options, const target_t &target, const image_t &before, const image_t &after,
                  const writing_t &writing) {
  const std::string label = target.label();
  image_t now;
  if (read_target(options, target, now) != EXIT_OK) {
    complain("%s: what it holds now is not known", label.c_str());
    return false;
  }
  const auto [count, first] = difference(after, now);
  if (count == 0) return true;
  complain("%s: reads back with %zu of %zu bytes different from the image, the first at byte %zu", label.c_str(), count,
           after.size(), first);
  if (now != before) return false;
  complain("%s: nothing has changed%s", label.c_str(),
           writing.transfer.result >= 0 ? "; it may be write-protected" : "");
  const std::string hint = other_pin_hint(*target.entry);
  if (!hint.empty()) complain("%s: %s", label.c_str(), hint.c_str());
  return false;
}

exit_code write_to_sprom(const options_t &options, const target_t &target, const image_t &before,
                         const image_t &after) {
  (void)fflush(stdout);
  const signal_hold_t hold;
  const writing_t writing = write_image(*target.entry, *target.kind, before, after);
  const bool is_good = is_told_good(*target.entry, writing);
  if (!is_read_back(options, target, before, after, writing)) return EXIT_FAILED;
  if (!is_good) {
    complain("%s: it reads back as the image, although the %s failed", target.label().c_str(),
             writing.transfer.result < 0 ? "write" : "write protection");
    return EXIT_FAILED;
  }
  (void)printf("%s: %zu bytes written; it reads back as the image\n", target.name().c_str(), writing.done);
  (void)fflush(stdout);
  return EXIT_OK;
}

exit_code write_over_file(const target_t &target, const image_t &image) {
  if (const exit_code code = write_to_file(target, image); code != EXIT_OK) return code;
  (void)printf("%s: written\n", target.label().c_str());
  return EXIT_OK;
}

// There is nothing to write; a protection that an earlier run left off is switched on all the same.
exit_code leave(const options_t &options, const target_t &target) {
  (void)printf("%s: holds this image already; nothing to write\n", target.label().c_str());
  if (!target.entry || options.has(OPT_DRY_RUN)) return EXIT_OK;
  const protection_t now = protection_of(*target.entry);
  if (now.state == protect_state::on || now.state == protect_state::none) return EXIT_OK;
  const signal_hold_t hold;
  if (!restore_protection(*target.entry)) return EXIT_FAILED;
  (void)printf("%s: its write protection was off and is on again\n", target.name().c_str());
  return EXIT_OK;
}

// Keeps other writers out of the SPROM's chip; false after a message.
bool is_locked(const options_t &options, const target_t &target, std::optional<chip_lock_t> &lock) {
  if (!target.entry || options.has(OPT_DRY_RUN)) return true;
  lock.emplace(*target.entry);
  if (lock->refusal().empty()) return true;
  const bool may_go_on = options.has(OPT_FORCE) && !lock->is_busy();
  complain("%s: %s%s%s", target.label().c_str(), may_go_on ? "" : "not written: ", lock->refusal().c_str(),
           may_go_on || lock->is_busy() ? "" : "; --force writes without a lock");
  return may_go_on;
}

// Makes the new image from the old one.
using maker_t = std::function<exit_code(const image_t &before, image_t &after)>;

// Reads the old image, shows what changes, asks, keeps a backup, writes, reads back, reports.
exit_code change(const options_t &options, const target_t &target, const maker_t &make) {
  if (const exit_code code = check_writing(options, target); code != EXIT_OK) return code;
  std::optional<chip_lock_t> lock;
  if (!is_locked(options, target, lock)) return EXIT_FAILED;
  image_t before;
  if (const exit_code code = read_target(options, target, before); code != EXIT_OK) return code;
  image_t after = before;
  if (const exit_code code = make(before, after); code != EXIT_OK) return code;
  const auto lines = changes(*target.kind, before, after);
  if (lines.empty()) return leave(options, target);

  (void)printf("%s: %s image, %u bytes\n", target.label().c_str(), target.kind->title, target.kind->size);
  for (const std::string &line : lines)
    (void)printf("  %s\n", line.c_str());
  if (options.has(OPT_DRY_RUN)) return EXIT_OK;
  if (!is_confirmed(options, target) || !is_backed_up(options, target, before)) return EXIT_FAILED;
  return target.entry ? write_to_sprom(options, target, before, after) : write_over_file(target, after);
}

bool is_standard_target(const options_t &options) {
  return options.file && *options.file == standard_stream;
}

}  // namespace

exit_code run_write(const options_t &options) {
  if (is_standard_target(options)) return complain_usage("--file - can only be read");
  const std::string &path = options.args.back();
  const std::string *name = options.args.size() == 2 ? &options.args.front() : nullptr;
  target_t target;
  if (name != nullptr) {
    if (const exit_code code = find_target(options, name, target); code != EXIT_OK) return code;
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
  return change(options, target, [&](const image_t &, image_t &after) { return after = image, EXIT_OK; });
}

exit_code run_edit(const options_t &options) {
  if (options.fields.empty() && !options.from) return complain_usage("no --FIELD=VALUE to change, and no --from");
  if (is_standard_target(options)) return complain_usage("--file - can only be read");
  target_t target;
  const std::string *name = options.args.empty() ? nullptr : &options.args.front();
  if (const exit_code code = find_target(options, name, target); code != EXIT_OK) return code;
  return change(options, target, [&](const image_t &before, image_t &after) {
    if (const exit_code code = set_fields(options, *target.kind, after); code != EXIT_OK) return code;
    // A new checksum would hide that the old bytes were damaged.
    return is_accepted(options, target.label(), *target.kind, before) ? EXIT_OK : EXIT_FAILED;
  });
}

exit_code run_make(const options_t &options) {
  const bool has_file_argument = options.args.size() == 2;
  if (options.file && has_file_argument) return complain_usage("--file stands in place of FILE");
  if (!options.file && !has_file_argument) return complain_usage("the FILE to make is missing");
  const kind_t *kind = kind_argument(options.args.front());
  if (kind == nullptr) return EXIT_USAGE;
  image_t image = new_image(*kind);
  if (const exit_code code = set_fields(options, *kind, image); code != EXIT_OK) return code;
  return save_image(options.file ? *options.file : options.args.back(), image);
}

}  // namespace tool

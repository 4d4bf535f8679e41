#include "sprom/cli/copy.h"

#include <stdio.h>

#include <algorithm>

#include "sprom/base/file.h"
#include "sprom/board/target.h"
#include "sprom/cli/report.h"

namespace tool {
namespace {

// Status 2 means any failure here, except that the wait was in vain.
constexpr exit_code EXIT_DIFFERENT = EXIT_FAILED;
constexpr exit_code EXIT_TROUBLE = EXIT_USAGE;

// Offset, sixteen bytes in hex, the same as text. Repeated lines are one asterisk.
void print_hex(std::span<const uint8_t> bytes) {
  constexpr size_t per_line = 16;
  std::span<const uint8_t> last;
  bool is_starred = false;
  for (size_t offset = 0; offset < bytes.size(); offset += per_line) {
    const auto line = bytes.subspan(offset, std::min(per_line, bytes.size() - offset));
    const bool is_repeated = std::ranges::equal(line, last);
    if (is_repeated && !is_starred) (void)puts("*");
    is_starred = is_repeated;
    if (is_repeated) continue;
    last = line;
    std::string hex;
    std::string text;
    for (size_t i = 0; i < line.size(); ++i) {
      hex += (i == per_line / 2 ? "  " : " ") + hex_bytes(line.subspan(i, 1), "");
      text += line[i] >= 0x20 && line[i] < 0x7F ? static_cast<char>(line[i]) : '.';
    }
    (void)printf("%08zx %-49s  |%s|\n", offset, hex.c_str(), text.c_str());
  }
  (void)printf("%08zx\n", bytes.size());
}

// Whether a word means what is to be dumped: of a file or a unit, a kind; a file of that name needs its directory.
bool is_dumped(const options_t &options, const std::string &word) {
  return options.file || options.bus ? kind_by_name(word) != nullptr : is_sprom_name(word);
}

// The target of a dump: the one named, else the supervisor's.
exit_code find_dumped(const options_t &options, target_t &target) {
  const size_t files = options.has(OPT_HEX) ? 0 : 1;
  if (options.args.size() < files) return complain_usage("the FILE to fill is missing");
  if (files == 1 && options.args.size() == 1 && is_dumped(options, options.args.front()))
    return complain_usage("%s: the FILE to fill is missing; a file of that name is ./%s",
                          shown(options.args.front()).c_str(), shown(options.args.front()).c_str());
  if (options.args.size() > files + 1) return complain_usage("--hex goes to standard output, not to a FILE");
  const std::string *name = options.args.size() > files ? &options.args.front() : nullptr;
  if (options.file || name != nullptr) return find_target(options, name, target);
  return find_only(options, *kind_by_type(SPROM_TYPE_SUP), target);
}

options_t with_file(options_t options, const std::string &path) {
  options.file = path;
  return options;
}

// Whether a word means a SPROM; a file of that name needs its directory, as in ./PS1.
bool is_sprom(const options_t &options, const std::string &word) {
  return options.bus ? kind_by_name(word) != nullptr : is_sprom_name(word);
}

exit_code find_both(const options_t &options, target_t &first, target_t &second) {
  if (const exit_code code = find_target(options, &options.args.front(), first); code != EXIT_OK) return code;
  if (const exit_code code = find_target(options, &options.args.back(), second); code != EXIT_OK) return code;
  if (first.kind == second.kind) return EXIT_OK;
  complain("%s has a %s image, %s a %s image: they cannot be compared", first.label().c_str(), first.kind->title,
           second.label().c_str(), second.kind->title);
  return EXIT_FAILED;
}

// What is compared: SPROMs and files, or a file and the only SPROM of its kind. A SPROM says which image of a file is
// meant.
exit_code find_sides(const options_t &options, target_t &first, target_t &second) {
  const std::string &one = options.args.front();
  const std::string &other = options.args.back();
  const bool is_alone = options.args.size() == 1;
  if (is_sprom(options, one)) {
    if (is_alone) return complain_usage("%s: the SPROM or FILE to compare it with is missing", shown(one).c_str());
    if (is_sprom(options, other)) return find_both(options, first, second);
    const exit_code code = find_target(options, &one, first);
    return code != EXIT_OK ? code : find_only(with_file(options, other), *first.kind, second);
  }
  if (is_sprom(options, other)) {
    const exit_code code = find_target(options, &other, second);
    return code != EXIT_OK ? code : find_only(with_file(options, one), *second.kind, first);
  }
  if (const exit_code code = find_target(with_file(options, one), nullptr, first); code != EXIT_OK) return code;
  return find_only(is_alone ? options : with_file(options, other), *first.kind, second);
}

}  // namespace

exit_code run_dump(const options_t &options) {
  if (options.has(OPT_RAW) && options.file) return complain_usage("--raw reads a SPROM's EEPROM, not a file");
  target_t target;
  if (const exit_code code = find_dumped(options, target); code != EXIT_OK) return code;
  image_t bytes;
  if (const exit_code code = read_target(options, target, bytes); code != EXIT_OK) return code;
  if (options.has(OPT_HEX)) {
    print_hex(bytes);
    return EXIT_OK;
  }
  const std::string &path = options.args.back();
  const exit_code code = save_image(path, bytes);
  // Standard output may be the file.
  if (code == EXIT_OK && path != standard_stream)
    (void)fprintf(stderr, "sprom: %s: %zu bytes of %s\n", shown(path).c_str(), bytes.size(), target.label().c_str());
  return code;
}

exit_code run_diff(const options_t &options) {
  target_t first;
  target_t second;
  image_t from;
  image_t to;
  exit_code code = find_sides(options, first, second);
  if (code == EXIT_OK) code = read_target(options, first, from);
  if (code == EXIT_OK) code = read_target(options, second, to);
  if (code != EXIT_OK) return code == EXIT_BUSY ? code : EXIT_TROUBLE;
  const size_t count = difference(from, to).count;
  if (options.has(OPT_JSON))
    return print_json({{"alike", count == 0},
                       {"bytes_different", count},
                       {"sides", {place_of(first), place_of(second)}},
                       {"changes", changes_json(first, from, to)}},
                      count == 0 ? EXIT_OK : EXIT_DIFFERENT);
  if (count == 0) return EXIT_OK;
  (void)printf("%s and %s: %zu of %zu bytes differ\n", first.label().c_str(), second.label().c_str(), count,
               from.size());
  for (const std::string &line : byte_changes(*first.kind, from, to))
    (void)printf("  %s\n", line.c_str());
  return EXIT_DIFFERENT;
}

}  // namespace tool

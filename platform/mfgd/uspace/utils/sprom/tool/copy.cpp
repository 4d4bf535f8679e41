#include "platform/mfgd/uspace/utils/sprom/tool/copy.h"

#include <stdio.h>

#include <algorithm>

#include "platform/mfgd/uspace/utils/sprom/tool/file.h"
#include "platform/mfgd/uspace/utils/sprom/tool/target.h"

namespace tool {
namespace {

// Status 2 stands for trouble here, whatever it was.
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

exit_code read_whole_chip(const options_t &options, const target_t &target, image_t &bytes) {
  const reading_t first = try_first_byte(options, target);  // with all that may stand against reading
  if (first.what != presence::present) {
    complain("%s: %s", target.label().c_str(), failure_text(target, first).c_str());
    return first.what == presence::absent ? EXIT_EMPTY : EXIT_FAILED;
  }
  bytes.resize(chip_size(*target.entry));
  const transfer_t read = read_chip(*target.entry, bytes);
  if (read.result >= 0) return EXIT_OK;
  complain("%s: cannot read byte %u of %zu: %s", target.label().c_str(), read.byte, bytes.size(),
           error_text(read.result).c_str());
  return EXIT_FAILED;
}

// The target of a dump: the one named, else the supervisor's.
exit_code find_dumped(const options_t &options, target_t &target) {
  const size_t files = options.has(OPT_HEX) ? 0 : 1;
  if (options.args.size() < files) return complain_usage("the FILE to fill is missing");
  if (options.args.size() > files + 1) return complain_usage("--hex goes to standard output, not to a FILE");
  const std::string *name = options.args.size() > files ? &options.args.front() : nullptr;
  if (options.file || name != nullptr) return find_target(options, name, target);
  return find_only(options, *kind_by_type(SPROM_TYPE_SUP), target);
}

options_t with_file(options_t options, const std::string &path) {
  options.file = path;
  return options;
}

// What is compared: a file with the SPROM or the file that is named, else with the only SPROM of its kind.
exit_code find_sides(const options_t &options, target_t &first, target_t &second) {
  const options_t file = with_file(options, options.args.front());
  const std::string &other = options.args.back();
  if (options.args.size() == 2 && is_sprom_name(other)) {
    const exit_code code = find_target(options, &other, second);
    return code != EXIT_OK ? code : find_only(file, *second.kind, first);
  }
  if (const exit_code code = find_target(file, nullptr, first); code != EXIT_OK) return code;
  return find_only(options.args.size() == 1 ? options : with_file(options, other), *first.kind, second);
}

}  // namespace

exit_code run_dump(const options_t &options) {
  if (options.has(OPT_RAW) && options.file) return complain_usage("--raw reads a SPROM's EEPROM, not a file");
  target_t target;
  if (const exit_code code = find_dumped(options, target); code != EXIT_OK) return code;
  image_t bytes;
  const exit_code code =
      options.has(OPT_RAW) ? read_whole_chip(options, target, bytes) : read_target(options, target, bytes);
  if (code != EXIT_OK) return code;
  if (options.has(OPT_HEX)) {
    print_hex(bytes);
    return EXIT_OK;
  }
  return save_image(options.args.back(), bytes);
}

exit_code run_diff(const options_t &options) {
  target_t first;
  target_t second;
  image_t from;
  image_t to;
  if (find_sides(options, first, second) != EXIT_OK || read_target(options, first, from) != EXIT_OK ||
      read_target(options, second, to) != EXIT_OK)
    return EXIT_TROUBLE;
  const size_t count = difference(from, to).count;
  if (count == 0) return EXIT_OK;
  (void)printf("%s and %s: %zu of %zu bytes differ\n", first.label().c_str(), second.label().c_str(), count,
               from.size());
  for (const std::string &line : byte_changes(*first.kind, from, to))
    (void)printf("  %s\n", line.c_str());
  return EXIT_DIFFERENT;
}

}  // namespace tool

#include "platform/mfgd/uspace/utils/sprom/tool/commands.h"

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "platform/mfgd/uspace/utils/sprom/tool/file.h"
#include "platform/mfgd/uspace/utils/sprom/tool/target.h"

namespace tool {
namespace {

const kind_t &kind_of(const sprom_t &sprom) {
  return *kind_by_type(sprom.type);
}

// The family that --family names or the board tells; null after a message.
const family_t *find_family(const options_t &options) {
  if (options.family != nullptr) return options.family;
  std::string report;
  const family_t *family = detect_family(report);
  if (family != nullptr) return family;
  (void)fputs(report.c_str(), stderr);
  complain("this is no board of a known family; --family names one, --file works on an image");
  return nullptr;
}

// What a command line names: a SPROM of the board, or a file in its place. The kind of a file is told by reading it.
struct found_t {
  exit_code code;
  target_t target;
};

found_t find_file(const options_t &options) {
  image_t image;
  const kind_t *kind = load_image(*options.file, nullptr, image);
  if (kind == nullptr) return {EXIT_FAILED, {}};
  return {EXIT_OK, {kind, *options.file, std::nullopt, std::move(image)}};
}

found_t of_entry(const entry_t &entry) {
  const kind_t &kind = kind_of(*entry.sprom);
  if (kind.size == 0) {
    complain("%s: a %s has no layout here", entry.sprom->name, kind.title);
    return {EXIT_FAILED, {}};
  }
  return {EXIT_OK, {&kind, entry.sprom->name, entry, {}}};
}

found_t find_named(const options_t &options, const std::string &name) {
  const family_t *family = find_family(options);
  if (family == nullptr) return {EXIT_FAILED, {}};
  const auto entry = find_sprom(*family, name);
  if (entry) return of_entry(*entry);
  complain("%s: the %s boards have no such SPROM (see 'sprom list')", name.c_str(), family_name(*family));
  return {EXIT_FAILED, {}};
}

// The only SPROM of a kind.
found_t find_only(const options_t &options, const kind_t &kind) {
  const family_t *family = find_family(options);
  if (family == nullptr) return {EXIT_FAILED, {}};
  std::vector<entry_t> entries = family_sproms(*family);
  std::erase_if(entries, [&](const entry_t &entry) { return entry.sprom->type != kind.type; });
  if (entries.size() == 1) return of_entry(entries.front());
  complain("the %s boards have %s %s SPROM; name the one that is meant", family_name(*family),
           entries.empty() ? "no" : "more than one", kind.title);
  return {EXIT_FAILED, {}};
}

// The SPROM of that name, or the file in its place; without a name there must be a file.
found_t find_target(const options_t &options, const std::string *name) {
  if (options.file && name != nullptr) return {complain_usage("--file stands in place of a SPROM"), {}};
  if (options.file) return find_file(options);
  if (name != nullptr) return find_named(options, *name);
  return {complain_usage("a SPROM or --file is missing"), {}};
}

const std::string *argument(const options_t &options, size_t count) {
  return options.args.size() == count ? &options.args.front() : nullptr;
}

std::string place_of(const entry_t &entry) {
  if (!entry.slot) return "";
  return "slot " + std::to_string(*entry.slot) +
         (entry.index ? ", index " + std::to_string(*entry.index) : std::string{});
}

std::string headline(const target_t &target) {
  const std::string place = target.entry ? " (" + place_of(*target.entry) + ")" : "";
  return target.name + place + ": " + target.kind->title + " image, " + std::to_string(target.kind->size) + " bytes";
}

void put_optional(json_t &json, const std::optional<uint32_t> &value) {
  if (value) {
    json.number(*value);
  } else {
    json.null();
  }
}

// Name, slot, index, kind and size; a file has no slot.
void put_identity(json_t &json, const std::string &name, const std::optional<entry_t> &entry, const kind_t &kind) {
  json.key("name");
  json.text(name);
  json.key("slot");
  put_optional(json, entry ? entry->slot : std::nullopt);
  json.key("index");
  put_optional(json, entry ? entry->index : std::nullopt);
  json.key("kind");
  json.text(kind.name);
  json.key("size");
  put_optional(json, kind.size == 0 ? std::nullopt : std::optional{kind.size});
}

void put_lines(json_t &json, const char *key, std::string_view text) {
  json.key(key);
  json.begin('[');
  for (const auto line : lines_of(text))
    json.text(line);
  json.end();
}

exit_code print_json(const json_t &json, exit_code code) {
  (void)printf("%s\n", json.str().c_str());
  return code;
}

// list

struct list_row_t {
  std::string name;
  std::optional<entry_t> entry;
  const kind_t *kind;
};

void print_list(const std::vector<list_row_t> &rows) {
  (void)printf("%-12s %5s %6s  %-5s %5s\n", "NAME", "SLOT", "INDEX", "KIND", "SIZE");
  for (const list_row_t &row : rows) {
    const bool has_slot = row.entry && row.entry->slot;
    const std::string slot = has_slot ? std::to_string(*row.entry->slot) : "-";
    const std::string index = !has_slot ? "-" : row.entry->index ? std::to_string(*row.entry->index) : "any";
    const std::string size = row.kind->size == 0 ? "-" : std::to_string(row.kind->size);
    (void)printf("%-12s %5s %6s  %-5s %5s\n", row.name.c_str(), slot.c_str(), index.c_str(), row.kind->name,
                 size.c_str());
  }
}

void print_list_json(const char *family, const std::vector<list_row_t> &rows) {
  json_t json;
  json.begin('{');
  json.key("family");
  if (family == nullptr) {
    json.null();
  } else {
    json.text(family);
  }
  json.key("sproms");
  json.begin('[');
  for (const list_row_t &row : rows) {
    json.begin('{');
    put_identity(json, row.name, row.entry, *row.kind);
    json.end();
  }
  json.end();
  json.end();
  (void)print_json(json, EXIT_OK);
}

exit_code run_list(const options_t &options) {
  std::vector<list_row_t> rows;
  const char *family_word = nullptr;
  if (options.file) {
    const found_t found = find_file(options);
    if (found.code != EXIT_OK) return found.code;
    rows.push_back({found.target.name, std::nullopt, found.target.kind});
  } else {
    const family_t *family = find_family(options);
    if (family == nullptr) return EXIT_FAILED;
    family_word = family_name(*family);
    for (const entry_t &entry : family_sproms(*family))
      rows.push_back({entry.sprom->name, entry, &kind_of(*entry.sprom)});
  }
  if (options.json) {
    print_list_json(family_word, rows);
  } else {
    print_list(rows);
  }
  return EXIT_OK;
}

// show

constexpr size_t bytes_per_line = 16;

bool is_in(const field_t &field, const sprom_block_t &block) {
  return field.offset >= block.offset && field.offset < block.offset + block.length;
}

void print_field(const field_t &field, std::span<const uint8_t> image) {
  const int name_length = static_cast<int>(field.name.size());
  if (field.type != field_type::bytes) {
    const std::string value = value_of(field, image);
    (void)printf("  %-*.*s%s\n", value.empty() ? 0 : 18, name_length, field.name.data(), value.c_str());
    return;
  }
  auto bytes = field_bytes(field, image);
  for (bool is_first = true; !bytes.empty(); is_first = false) {
    const auto line = bytes.first(std::min(bytes.size(), bytes_per_line));
    (void)printf("  %-18.*s%s\n", is_first ? name_length : 0, field.name.data(), hex_bytes(line, " ").c_str());
    bytes = bytes.subspan(line.size());
  }
}

void print_image(const target_t &target, std::span<const uint8_t> image) {
  (void)printf("%s\n", headline(target).c_str());
  for (const sprom_block_t &block : target.kind->blocks()) {
    const verdict_t verdict = verify_block(*target.kind, block, image);
    (void)printf("\n%s, %u bytes at offset %u: %s\n", block.label, block.length, block.offset,
                 verdict.is_good ? "good" : "BAD");
    for (const auto line : lines_of(verdict.lines)) {
      (void)printf("  %.*s\n", static_cast<int>(line.size()), line.data());
    }
    for (const field_t &field : target.kind->fields) {
      if (is_in(field, block)) print_field(field, image);
    }
  }
}

void put_field(json_t &json, const field_t &field, std::span<const uint8_t> image) {
  const auto bytes = field_bytes(field, image);
  json.key(field.name);
  switch (field.type) {
    case field_type::number:
      return json.text(value_of(field, image));
    case field_type::text:
      return json.text(trimmed(bytes));
    case field_type::bytes:
      return json.text(hex_bytes(bytes, ""));
  }
}

void put_block(json_t &json, const kind_t &kind, const sprom_block_t &block, std::span<const uint8_t> image) {
  const verdict_t verdict = verify_block(kind, block, image);
  json.begin('{');
  json.key("name");
  json.text(block.label);
  json.key("offset");
  json.number(block.offset);
  json.key("length");
  json.number(block.length);
  json.key("good");
  json.boolean(verdict.is_good);
  put_lines(json, "messages", verdict.lines);
  json.key("fields");
  json.begin('{');
  for (const field_t &field : kind.fields) {
    if (is_in(field, block)) put_field(json, field, image);
  }
  json.end();
  json.end();
}

void print_image_json(const target_t &target, std::span<const uint8_t> image) {
  json_t json;
  json.begin('{');
  put_identity(json, target.name, target.entry, *target.kind);
  json.key("good");
  json.boolean(verify_image(*target.kind, image).is_good);
  json.key("blocks");
  json.begin('[');
  for (const sprom_block_t &block : target.kind->blocks())
    put_block(json, *target.kind, block, image);
  json.end();
  json.end();
  (void)print_json(json, EXIT_OK);
}

exit_code run_show(const options_t &options) {
  const found_t found = find_target(options, argument(options, 1));
  if (found.code != EXIT_OK) return found.code;
  image_t image;
  if (!read_target(found.target, image)) return EXIT_FAILED;
  if (options.json) {
    print_image_json(found.target, image);
  } else {
    print_image(found.target, image);
  }
  return EXIT_OK;
}

// verify

struct checked_t {
  target_t target;
  bool is_read;
  verdict_t verdict;
};

checked_t check(const target_t &target) {
  checked_t checked{target, false, {}};
  image_t image;
  checked.is_read = read_target(target, image);
  if (checked.is_read) checked.verdict = verify_image(*target.kind, image);
  return checked;
}

exit_code print_checks_json(const std::vector<checked_t> &all, bool is_good) {
  json_t json;
  json.begin('{');
  json.key("good");
  json.boolean(is_good);
  json.key("sproms");
  json.begin('[');
  for (const checked_t &checked : all) {
    json.begin('{');
    put_identity(json, checked.target.name, checked.target.entry, *checked.target.kind);
    json.key("read");
    json.boolean(checked.is_read);
    json.key("good");
    json.boolean(checked.verdict.is_good);
    put_lines(json, "messages", checked.verdict.lines);
    json.end();
  }
  json.end();
  json.end();
  return print_json(json, is_good ? EXIT_OK : EXIT_FAILED);
}

// The targets of `verify`: one, or every SPROM of the family that has a layout.
exit_code find_targets(const options_t &options, std::vector<target_t> &targets) {
  if (options.file || !options.args.empty()) {
    const found_t found = find_target(options, argument(options, 1));
    targets.push_back(found.target);
    return found.code;
  }
  const family_t *family = find_family(options);
  if (family == nullptr) return EXIT_FAILED;
  for (const entry_t &entry : family_sproms(*family)) {
    const kind_t &kind = kind_of(*entry.sprom);
    if (kind.size != 0) targets.push_back({&kind, entry.sprom->name, entry, {}});
  }
  return EXIT_OK;
}

exit_code run_verify(const options_t &options) {
  std::vector<target_t> targets;
  if (const exit_code code = find_targets(options, targets); code != EXIT_OK) return code;
  std::vector<checked_t> all;
  for (const target_t &target : targets)
    all.push_back(check(target));
  const bool is_good = std::ranges::all_of(all, [](const checked_t &c) { return c.verdict.is_good; });
  if (options.json) return print_checks_json(all, is_good);

  for (const checked_t &checked : all) {
    (void)fputs(checked.verdict.lines.c_str(), stdout);
    // The lines do not say of which SPROM they are.
    if (all.size() == 1) continue;
    const char *word = !checked.is_read ? "unreadable" : checked.verdict.is_good ? "good" : "BAD";
    (void)printf("%s: %s\n", checked.target.name.c_str(), word);
  }
  return is_good ? EXIT_OK : EXIT_FAILED;
}

// dump

exit_code save(const std::string &path, const image_t &image) {
  const int error = write_file(path, image);
  if (error == 0) return EXIT_OK;
  complain("%s: cannot write: %s", path.c_str(), strerror(error));
  return EXIT_FAILED;
}

exit_code run_dump(const options_t &options) {
  const std::string *name = argument(options, 2);
  const bool is_named = options.file || name != nullptr;
  const found_t found = is_named ? find_target(options, name) : find_only(options, *kind_by_type(SPROM_TYPE_SUP));
  if (found.code != EXIT_OK) return found.code;
  image_t image;
  if (!read_target(found.target, image)) return EXIT_FAILED;
  return save(options.args.back(), image);
}

// write and edit

// Asks on the terminal; without one the answer is no, after a message.
bool is_confirmed(const options_t &options, const target_t &target) {
  if (options.yes) return true;
  if (isatty(STDIN_FILENO) == 0) {
    complain("%s: not written: there is no terminal to ask on; --yes writes without asking", target.name.c_str());
    return false;
  }
  (void)fflush(stdout);
  (void)fprintf(stderr, "Write to %s? [y/N] ", target.name.c_str());
  std::array<char, 16> answer{};
  const bool has_answer = fgets(answer.data(), answer.size(), stdin) != nullptr;
  if (has_answer && (answer[0] == 'y' || answer[0] == 'Y')) return true;
  complain("%s: not written", target.name.c_str());
  return false;
}

// Refuses an image with bad blocks unless it is forced.
bool is_accepted(const options_t &options, const std::string &name, const kind_t &kind, const image_t &image) {
  const verdict_t verdict = verify_image(kind, image);
  if (verdict.is_good) return true;
  (void)fflush(stdout);
  (void)fputs(verdict.lines.c_str(), stderr);
  if (options.force) return true;
  complain("%s: a bad image; nothing is written without --force", name.c_str());
  return false;
}

// Shows what changes, asks, writes, reads back, reports.
exit_code change(const options_t &options, const target_t &target, const image_t &before, const image_t &after) {
  const auto lines = changes(*target.kind, before, after);
  if (lines.empty()) {
    (void)printf("%s: holds this image already; nothing to write\n", target.name.c_str());
    return EXIT_OK;
  }
  (void)printf("%s\n", headline(target).c_str());
  for (const std::string &line : lines)
    (void)printf("  %s\n", line.c_str());
  if (!is_confirmed(options, target)) return EXIT_FAILED;
  (void)fflush(stdout);
  if (!write_target(target, before, after)) return EXIT_FAILED;
  (void)printf("%s: %zu bytes written and read back\n", target.name.c_str(), after.size());
  return EXIT_OK;
}

exit_code run_write(const options_t &options) {
  const std::string &path = options.args.back();
  const std::string *name = argument(options, 2);
  const bool is_named = options.file || name != nullptr;
  found_t found{EXIT_OK, {}};
  if (is_named) found = find_target(options, name);
  if (found.code != EXIT_OK) return found.code;

  image_t image;
  const kind_t *kind = load_image(path, is_named ? found.target.kind : nullptr, image);
  if (kind == nullptr || !is_accepted(options, path, *kind, image)) return EXIT_FAILED;
  if (!is_named) found = find_only(options, *kind);
  if (found.code != EXIT_OK) return found.code;

  image_t before;
  if (!read_target(found.target, before)) return EXIT_FAILED;
  return change(options, found.target, before, image);
}

// Puts the values of the command line into an image and renews the checksums of the blocks they stand in.
exit_code set_fields(const options_t &options, const kind_t &kind, image_t &image) {
  const image_t before = image;
  for (const auto &[name, value] : options.fields) {
    const field_t *field = field_by_name(kind, name);
    if (field == nullptr)
      return complain_usage("a %s image has no field %s (see 'sprom fields')", kind.title, name.c_str());
    if (field->source == field_source::sum) return complain_usage("%s is computed", name.c_str());
    if (field->source == field_source::format) return complain_usage("%s belongs to the format", name.c_str());
    const std::string error = parse_value(*field, value, image);
    if (!error.empty()) return complain_usage("%s: '%s' %s", name.c_str(), escaped(value).c_str(), error.c_str());
  }
  for (const sprom_block_t &block : kind.blocks()) {
    const auto old_bytes = std::span{before}.subspan(block.offset, block.length);
    const auto new_bytes = std::span{image}.subspan(block.offset, block.length);
    if (!std::ranges::equal(old_bytes, new_bytes)) update_checksum(block, image);
  }
  return EXIT_OK;
}

exit_code run_edit(const options_t &options) {
  if (options.fields.empty()) return complain_usage("no --FIELD=VALUE to change");
  const found_t found = find_target(options, argument(options, 1));
  if (found.code != EXIT_OK) return found.code;
  image_t before;
  if (!read_target(found.target, before)) return EXIT_FAILED;
  image_t after = before;
  if (const exit_code code = set_fields(options, *found.target.kind, after); code != EXIT_OK) return code;
  // A new checksum would hide that the old bytes were damaged.
  if (!is_accepted(options, found.target.name, *found.target.kind, before)) return EXIT_FAILED;
  return change(options, found.target, before, after);
}

// make and fields

// The kind that an argument names, with a layout; null after a message.
const kind_t *find_kind(const std::string &name) {
  const kind_t *kind = kind_by_name(name);
  if (kind == nullptr) {
    (void)complain_usage("%s: no such kind of image", name.c_str());
  } else if (kind->size == 0) {
    (void)complain_usage("%s: this kind has no layout", name.c_str());
    return nullptr;
  }
  return kind;
}

exit_code run_make(const options_t &options) {
  const bool has_file_argument = options.args.size() == 2;
  if (options.file && has_file_argument) return complain_usage("--file stands in place of FILE");
  if (!options.file && !has_file_argument) return complain_usage("the FILE to make is missing");
  const kind_t *kind = find_kind(options.args.front());
  if (kind == nullptr) return EXIT_USAGE;
  image_t image = new_image(*kind);
  if (const exit_code code = set_fields(options, *kind, image); code != EXIT_OK) return code;
  return save(options.file ? *options.file : options.args.back(), image);
}

exit_code run_fields(const options_t &options) {
  const kind_t *kind = find_kind(options.args.front());
  if (kind == nullptr) return EXIT_USAGE;
  constexpr std::array types{"number", "text", "bytes"};       // indexed by field_type
  constexpr std::array sources{"", "  format", "  computed"};  // indexed by field_source
  (void)printf("%-18s %6s %5s  TYPE\n", "NAME", "OFFSET", "WIDTH");
  for (const field_t &field : kind->fields) {
    (void)printf("%-18.*s %6u %5u  %s%s\n", static_cast<int>(field.name.size()), field.name.data(), field.offset,
                 field.width, types.at(static_cast<size_t>(field.type)), sources.at(static_cast<size_t>(field.source)));
  }
  return EXIT_OK;
}

constexpr uint32_t OPT_BOARD = OPT_FILE | OPT_FAMILY;
constexpr uint32_t OPT_WRITE = OPT_BOARD | OPT_YES | OPT_FORCE;

// clang-format off
constexpr std::array<command_t, 8> commands{{
    {"list",   run_list,   OPT_BOARD | OPT_JSON,  0, 0, "",              "every SPROM of the board's family"},
    {"show",   run_show,   OPT_BOARD | OPT_JSON,  0, 1, "SPROM",         "the fields, and the verdict of each block"},
    {"verify", run_verify, OPT_BOARD | OPT_JSON,  0, 1, "[SPROM]",       "check every block; exit status 0 or 1"},
    {"dump",   run_dump,   OPT_BOARD,             1, 2, "[SPROM] FILE",  "copy the image to FILE as it stands on the chip"},
    {"write",  run_write,  OPT_WRITE,             1, 2, "[SPROM] FILE",  "check FILE, write it and read it back"},
    {"edit",   run_edit,   OPT_WRITE | OPT_FIELD, 0, 1, "SPROM --FIELD=VALUE...", "change single fields, checksums included"},
    {"make",   run_make,   OPT_FILE | OPT_FIELD,  1, 2, "KIND FILE [--FIELD=VALUE]...", "build a valid image from nothing"},
    {"fields", run_fields, 0,                     1, 1, "KIND",          "the names of a kind's fields"},
}};
// clang-format on

}  // namespace

std::span<const command_t> all_commands() {
  return commands;
}

}  // namespace tool

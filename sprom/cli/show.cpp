#include "sprom/cli/show.h"

#include <stdio.h>

#include <algorithm>
#include <array>

#include "sprom/board/target.h"
#include "sprom/cli/report.h"
#include "sprom/cli/values.h"

namespace tool {
namespace {

// What became of asking the SPROM; a file has neither bus nor address.
void put_state(json_t &json, const target_t &target, const reading_t &reading) {
  const bool is_failed = reading.transfer.result < 0;
  json["state"] = presence_word(reading.what);
  json["bus"] = target.entry ? json_t(target.entry->dev().path) : json_t(nullptr);
  json["address"] = target.entry ? json_t(target.entry->dev().addr) : json_t(nullptr);
  json["byte"] = is_failed ? json_t(reading.transfer.byte) : json_t(nullptr);
  json["errno"] = is_failed ? json_t(-reading.transfer.result) : json_t(nullptr);
  json["error"] = reading.what == presence::present ? json_t(nullptr) : json_t(failure_text(target, reading));
}

json_t json_lines(std::string_view text) {
  json_t lines = json_t::array();
  for (const auto line : lines_of(text))
    lines.push_back(line);
  return lines;
}

// list

struct list_row_t {
  target_t target;
  std::optional<reading_t> reading;  // unless nothing was asked
};

void print_list(const std::vector<list_row_t> &rows) {
  (void)printf("%-12s %5s %6s  %-5s %5s  %-17s %s\n", "NAME", "SLOT", "INDEX", "KIND", "SIZE", "DEVICE", "STATE");
  for (const auto &[target, reading] : rows) {
    const auto &entry = target.entry;
    std::string slot = "-", index = "-", size = "-", device = "-";
    if (entry) device = device_text(entry->dev());
    if (entry && entry->slot) {
      slot = std::to_string(*entry->slot);
      index = "any";
      if (entry->index) index = std::to_string(*entry->index);
    }
    if (target.kind->has_layout()) size = std::to_string(target.kind->size);
    (void)printf("%-12s %5s %6s  %-5s %5s  %-17s %s\n", shown(target.name()).c_str(), slot.c_str(), index.c_str(),
                 target.kind == &unknown_kind ? "-" : target.kind->name, size.c_str(), device.c_str(),
                 reading ? presence_word(reading->what) : "-");
  }
}

void print_list_json(const family_t *family, const std::vector<list_row_t> &rows) {
  json_t sproms = json_t::array();
  for (const list_row_t &row : rows) {
    json_t json = identity_of(row.target);
    if (row.reading) put_state(json, row.target, *row.reading);
    sproms.push_back(std::move(json));
  }
  const json_t name = family == nullptr ? json_t(nullptr) : json_t(family_name(*family));
  (void)print_json({{"family", name}, {"sproms", sproms}}, EXIT_OK);
}

// A file may hold what is no image of a known kind: reports that, and is false then.
bool is_kind_known(const target_t &target) {
  if (target.kind != &unknown_kind) return true;
  complain("%s: %s", target.label().c_str(), target.file.unknown_text(target.base).c_str());
  return false;
}

exit_code list_rows(const options_t &options, const family_t *&family, std::vector<list_row_t> &rows) {
  std::vector<target_t> targets;
  if (options.file) {
    if (const exit_code code = find_targets(options, nullptr, targets); code != EXIT_OK) return code;
  } else {
    if (const exit_code code = find_family(options, family); code != EXIT_OK) return code;
    for (const entry_t &entry : family_sproms(*family))
      targets.push_back({.kind = kind_by_type(entry.sprom->type), .entry = entry});
  }
  for (const target_t &target : targets) {
    rows.push_back({target, std::nullopt});
    if (target.entry && !options.has(OPT_NO_PROBE)) rows.back().reading = try_first_byte(options, target);
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
  if (field.type != SPROM_FIELD_BYTES) {
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

void print_indented(std::string_view text) {
  for (const auto line : lines_of(text))
    (void)printf("  %.*s\n", static_cast<int>(line.size()), line.data());
}

void print_image(const target_t &target, std::span<const uint8_t> image) {
  (void)printf("%s: %s image, %u bytes\n", target.label().c_str(), target.kind->title, target.kind->size);
  for (const sprom_block_t &block : target.kind->blocks()) {
    const verdict_t verdict = verify_block(*target.kind, block, image);
    (void)printf("\n%s, %u bytes at offset %u: %s\n", block.label, block.length, block.offset,
                 verdict.is_good ? "good" : "BAD");
    print_indented(verdict.lines);
    for (const field_t &field : target.kind->fields()) {
      if (is_in(field, block)) print_field(field, image);
    }
  }
}

json_t image_json(const target_t &target, std::span<const uint8_t> image) {
  json_t json = identity_of(target);
  json["good"] = verify_image(*target.kind, image).is_good;
  json["blocks"] = json_t::array();
  for (const sprom_block_t &block : target.kind->blocks()) {
    const verdict_t verdict = verify_block(*target.kind, block, image);
    json_t fields = json_t::object();
    for (const field_t &field : target.kind->fields()) {
      if (is_in(field, block)) fields[std::string{field.name}] = json_text(exact_value_of(field, image));
    }
    json["blocks"].push_back({{"name", block.label},
                              {"offset", block.offset},
                              {"length", block.length},
                              {"good", verdict.is_good},
                              {"messages", json_lines(verdict.lines)},
                              {"fields", fields}});
  }
  return json;
}

// verify

struct checked_t {
  target_t target;
  reading_t reading;
  verdict_t verdict;
};

checked_t check(const options_t &options, const target_t &target) {
  checked_t checked{target, {}, {}};
  image_t image;
  checked.reading = try_read(options, target, image);
  if (target.kind == &unknown_kind) {
    checked.verdict.lines = target.file.unknown_text(target.base) + '\n';
  } else if (checked.reading.what == presence::present) {
    checked.verdict = verify_image(*target.kind, image);
  }
  return checked;
}

// An empty slot, and a SPROM that may not be asked, are no defects where all were checked, but where one was named. A
// bad or dead SPROM outweighs a busy one.
exit_code status_of(const std::vector<checked_t> &all, bool is_named) {
  exit_code code = EXIT_OK;
  for (const checked_t &checked : all) {
    if (checked.reading.what == presence::absent) {
      if (is_named) return EXIT_EMPTY;
    } else if (checked.reading.what == presence::busy) {
      code = code == EXIT_FAILED ? code : EXIT_BUSY;
    } else if (!checked.verdict.is_good && (is_named || checked.reading.reason.empty())) {
      code = EXIT_FAILED;
    }
  }
  return code;
}

// True or false where something was found out: nothing is known of an empty slot, or of what could not be asked.
json_t good_of(const checked_t &checked) {
  const bool is_checked = checked.reading.what == presence::present || checked.reading.what == presence::dead;
  return is_checked ? json_t(checked.verdict.is_good) : json_t(nullptr);
}

exit_code print_checks_json(const std::vector<checked_t> &all, exit_code code) {
  json_t sproms = json_t::array();
  for (const checked_t &checked : all) {
    json_t json = identity_of(checked.target);
    put_state(json, checked.target, checked.reading);
    json["good"] = good_of(checked);
    json["messages"] = json_lines(checked.verdict.lines);
    sproms.push_back(std::move(json));
  }
  return print_json({{"good", code == EXIT_OK}, {"sproms", sproms}}, code);
}

void print_check(const checked_t &checked) {
  const std::string label = checked.target.label();
  if (checked.reading.what != presence::present) {
    const bool is_skipped = checked.reading.what == presence::unknown && !checked.reading.reason.empty();
    const char *word = is_skipped ? "skipped" : presence_word(checked.reading.what);
    (void)printf("%s: %s\n", label.c_str(), word);
    print_indented(failure_text(checked.target, checked.reading));
    return;
  }
  (void)printf("%s: %s\n", label.c_str(), checked.verdict.is_good ? "good" : "BAD");
  print_indented(checked.verdict.lines);
}

// The targets of `verify`: those named, or every SPROM of the family that has a layout.
exit_code find_checked(const options_t &options, std::vector<target_t> &targets) {
  const std::string *name = options.args.empty() ? nullptr : &options.args.front();
  if (options.file || options.bus || name != nullptr) return find_targets(options, name, targets);
  const family_t *family = nullptr;
  if (const exit_code code = find_family(options, family); code != EXIT_OK) return code;
  for (const entry_t &entry : family_sproms(*family)) {
    const kind_t *kind = kind_by_type(entry.sprom->type);
    if (kind->has_layout()) targets.push_back({.kind = kind, .entry = entry});
  }
  return EXIT_OK;
}

// get

// "good" is the verdict of the block that has the field.
json_t value_json(const target_t &target, const field_t &field, std::span<const uint8_t> image) {
  json_t json = place_of(target);
  json["field"] = field.name;
  json["value"] = json_text(exact_value_of(field, image));
  for (const sprom_block_t &block : target.kind->blocks()) {
    if (!is_in(field, block)) continue;
    const verdict_t verdict = verify_block(*target.kind, block, image);
    json["good"] = verdict.is_good;
    json["messages"] = json_lines(verdict.lines);
  }
  return json;
}

// With one argument, which of both is missing.
exit_code complain_missing(const options_t &options) {
  const std::string &word = options.args.front();
  const bool is_sprom = options.file || options.bus ? kind_by_name(word) != nullptr : is_sprom_name(word);
  if (is_sprom) return complain_usage("%s: the FIELD to print is missing", shown(word).c_str());
  if (options.file || options.bus) return EXIT_OK;
  return complain_usage("%s: the SPROM to read it from, or --file, is missing", shown(word).c_str());
}

// fields

constexpr std::array type_words{"number", "text", "bytes"};       // indexed by sprom_field_type_t
constexpr std::array source_words{"user", "format", "computed"};  // indexed by field_source

const char *type_word(const field_t &field) {
  return type_words.at(field.type);
}
const char *source_word(const kind_t &kind, const field_t &field) {
  return source_words.at(static_cast<size_t>(source_of(kind, field)));
}

}  // namespace

exit_code run_list(const options_t &options) {
  const family_t *family = nullptr;
  std::vector<list_row_t> rows;
  if (const exit_code code = list_rows(options, family, rows); code != EXIT_OK) return code;
  if (options.has(OPT_JSON)) {
    print_list_json(family, rows);
  } else {
    print_list(rows);
  }
  const auto unknown = std::ranges::count_if(rows, [](const list_row_t &row) { return !is_kind_known(row.target); });
  return unknown == 0 ? EXIT_OK : EXIT_FAILED;
}

exit_code run_show(const options_t &options) {
  std::vector<target_t> targets;
  const std::string *name = options.args.empty() ? nullptr : &options.args.front();
  if (const exit_code code = find_targets(options, name, targets); code != EXIT_OK) return code;
  if (options.has(OPT_JSON) && targets.size() > 1) {
    complain("%s: holds %zu images; name the kind that is meant", shown(*options.file).c_str(), targets.size());
    return EXIT_FAILED;
  }
  exit_code result = EXIT_OK;
  bool is_first = true;
  for (const target_t &target : targets) {
    image_t image;
    if (!is_kind_known(target)) {
      result = EXIT_FAILED;
      continue;
    }
    if (const exit_code code = read_target(options, target, image); code != EXIT_OK) return code;
    if (options.has(OPT_JSON)) return print_json(image_json(target, image), EXIT_OK);
    if (!is_first) (void)putchar('\n');
    is_first = false;
    print_image(target, image);
  }
  return result;
}

exit_code run_get(const options_t &options) {
  const std::string *name = options.args.size() == 2 ? &options.args.front() : nullptr;
  if (const exit_code code = name == nullptr ? complain_missing(options) : EXIT_OK; code != EXIT_OK) return code;
  target_t target;
  if (const exit_code code = find_target(options, name, target); code != EXIT_OK) return code;
  const std::string &word = options.args.back();
  const field_t *field = field_by_name(*target.kind, word);
  if (field == nullptr) return complain_no_field(*target.kind, word);
  image_t image;
  if (const exit_code code = read_target(options, target, image); code != EXIT_OK) return code;
  if (options.has(OPT_JSON)) return print_json(value_json(target, *field, image), EXIT_OK);
  (void)printf("%s\n", value_of(*field, image).c_str());
  return EXIT_OK;
}

exit_code run_verify(const options_t &options) {
  std::vector<target_t> targets;
  if (const exit_code code = find_checked(options, targets); code != EXIT_OK) return code;
  std::vector<checked_t> all;
  all.reserve(targets.size());
  for (const target_t &target : targets)
    all.push_back(check(options, target));
  const exit_code code = status_of(all, options.file || options.bus || !options.args.empty());
  if (options.has(OPT_JSON)) return print_checks_json(all, code);
  if (all.size() > 1) {
    std::ranges::for_each(all, print_check);
  } else if (const checked_t &only = all.front(); only.reading.what != presence::present) {
    complain("%s: %s", only.target.label().c_str(), failure_text(only.target, only.reading).c_str());
  } else {
    (void)fputs(only.verdict.lines.c_str(), stdout);
  }
  return code;
}

exit_code run_fields(const options_t &options) {
  const kind_t *kind = kind_argument(options.args.front());
  if (kind == nullptr) return EXIT_USAGE;
  if (options.has(OPT_JSON)) {
    json_t fields = json_t::array();
    for (const field_t &field : kind->fields())
      fields.push_back({{"name", field.name},
                        {"offset", field.offset},
                        {"width", field.width},
                        {"type", type_word(field)},
                        {"source", source_word(*kind, field)}});
    return print_json({{"kind", kind->name}, {"size", kind->size}, {"fields", fields}}, EXIT_OK);
  }
  (void)printf("%-18s %6s %5s  %-7s  SOURCE\n", "NAME", "OFFSET", "WIDTH", "TYPE");
  for (const field_t &field : kind->fields())
    (void)printf("%-18.*s %6u %5u  %-7s  %s\n", static_cast<int>(field.name.size()), field.name.data(), field.offset,
                 field.width, type_word(field), source_word(*kind, field));
  return EXIT_OK;
}

}  // namespace tool

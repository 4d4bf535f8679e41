#include "platform/mfgd/uspace/utils/sprom/tool/target.h"

#include <algorithm>
#include <array>

#include "platform/mfgd/uspace/utils/sprom/tool/file.h"
#include "platform/mfgd/uspace/utils/sprom/tool/service.h"

namespace tool {
namespace {

exit_code of_entry(const entry_t &entry, target_t &target) {
  target = {.kind = kind_by_type(entry.sprom->type), .entry = entry};
  if (target.kind->size != 0) return EXIT_OK;
  complain("%s: a %s has no layout here", entry.sprom->name, target.kind->title);
  return EXIT_FAILED;
}

exit_code find_named(const options_t &options, const std::string &name, target_t &target) {
  const family_t *family = find_family(options);
  if (family == nullptr) return EXIT_FAILED;
  if (const auto entry = find_sprom(*family, name)) return of_entry(*entry, target);
  complain("%s: the %s boards have no such SPROM (see 'sprom list')", shown(name).c_str(), family_name(*family));
  return EXIT_FAILED;
}

// The images of --file, of one kind or of any.
exit_code find_in_file(const options_t &options, const kind_t *kind, std::vector<target_t> &targets) {
  const auto file = load_image_file(*options.file, kind);
  if (!file) return EXIT_FAILED;
  for (const image_place_t &place : file->images)
    targets.push_back({.kind = place.kind, .entry = {}, .path = *options.file, .file = *file, .base = place.base});
  return EXIT_OK;
}

// The kind that the name of an image in a file stands for; null after a message, or for no name.
exit_code find_kind(const std::string *name, const kind_t *&kind) {
  kind = name == nullptr ? nullptr : kind_by_name(*name);
  if (name == nullptr || (kind != nullptr && kind->size != 0)) return EXIT_OK;
  return complain_usage("%s: with --file, a SPROM is named by its kind", shown(*name).c_str());
}

exit_code only_of(const std::vector<target_t> &targets, target_t &target) {
  if (targets.size() != 1) {
    complain("%s: holds %zu images; name the kind that is meant", file_label(targets.front().path).c_str(),
             targets.size());
    return EXIT_FAILED;
  }
  target = targets.front();
  return EXIT_OK;
}

// Whether the service may read the SPROM; else *reason says why not.
bool may_read(const options_t &options, const target_t &target, std::string &reason) {
  std::string others;
  const hazard found = service_has_routing() ? hazard::none : reading_hazard(*target.entry, others);
  if (found == hazard::one_byte && !options.has(OPT_FORCE)) {
    reason =
        "not touched: its EEPROM takes one address byte, which this libutils.so cannot be told, so that reading "
        "would write to it; --force does it all the same";
    return false;
  }
  if (found != hazard::none && !others.empty())
    complain(
        "%s: this libutils.so cannot be told the device, and knows %s by the same identity: what is read may be "
        "another's",
        target.label().c_str(), others.c_str());
  return true;
}

reading_t try_bytes(const options_t &options, const target_t &target, std::span<uint8_t> bytes) {
  reading_t reading{presence::unknown, {0, 0}, ""};
  if (!may_read(options, target, reading.reason)) return reading;
  reading.transfer = read_image(*target.entry, bytes);
  reading.what = presence_of(*target.entry, reading.transfer);
  return reading;
}

}  // namespace

std::string target_t::name() const {
  if (entry) return entry->sprom->name;
  return path;
}

std::string target_t::label() const {
  if (entry) return label_of(*entry);
  std::string text = file_label(path);
  if (file.content.size() != kind->size) text = text + " (" + kind->title + " image)";
  return text;
}

const family_t *find_family(const options_t &options) {
  if (options.family != nullptr) return options.family;
  std::string report;
  const family_t *family = detect_family(report);
  if (family != nullptr) return family;
  (void)fputs(report.c_str(), stderr);
  complain("this is no board of a known family; --family names one, --file works on an image");
  return nullptr;
}

const kind_t *kind_argument(const std::string &name) {
  const kind_t *kind = kind_by_name(name);
  if (kind == nullptr) {
    (void)complain_usage("%s: no such kind of image", shown(name).c_str());
  } else if (kind->size == 0) {
    (void)complain_usage("%s: this kind has no layout", kind->name);
    return nullptr;
  }
  return kind;
}

exit_code find_targets(const options_t &options, const std::string *name, std::vector<target_t> &targets) {
  if (options.file) {
    const kind_t *kind = nullptr;
    const exit_code code = find_kind(name, kind);
    return code != EXIT_OK ? code : find_in_file(options, kind, targets);
  }
  if (name == nullptr) return complain_usage("a SPROM or --file is missing");
  return find_named(options, *name, targets.emplace_back());
}

exit_code find_target(const options_t &options, const std::string *name, target_t &target) {
  std::vector<target_t> targets;
  const exit_code code = find_targets(options, name, targets);
  return code != EXIT_OK ? code : only_of(targets, target);
}

exit_code find_only(const options_t &options, const kind_t &kind, target_t &target) {
  if (options.file) {
    std::vector<target_t> targets;
    const exit_code code = find_in_file(options, &kind, targets);
    return code != EXIT_OK ? code : only_of(targets, target);
  }
  const family_t *family = find_family(options);
  if (family == nullptr) return EXIT_FAILED;
  std::vector<entry_t> entries = family_sproms(*family);
  std::erase_if(entries, [&](const entry_t &entry) { return entry.sprom->type != kind.type; });
  if (entries.size() == 1) return of_entry(entries.front(), target);
  complain("the %s boards have %s %s SPROM; name the one that is meant", family_name(*family),
           entries.empty() ? "no" : "more than one", kind.title);
  return EXIT_FAILED;
}

reading_t try_read(const options_t &options, const target_t &target, image_t &image) {
  image.resize(target.kind->size);
  if (target.entry) return try_bytes(options, target, image);
  image = target.file.image({target.kind, target.base});
  return {presence::present, {0, 0}, ""};
}

reading_t try_first_byte(const options_t &options, const target_t &target) {
  std::array<uint8_t, 1> byte;
  return target.entry ? try_bytes(options, target, byte) : reading_t{presence::present, {0, 0}, ""};
}

std::string failure_text(const target_t &target, const reading_t &reading) {
  if (!reading.reason.empty()) return reading.reason;
  const std::string error = error_text(reading.transfer.result);
  if (reading.what == presence::absent) return "the slot is empty: " + error;
  return "cannot read byte " + std::to_string(reading.transfer.byte) + " of " + std::to_string(target.kind->size) +
         ": " + error;
}

exit_code read_target(const options_t &options, const target_t &target, image_t &image) {
  const reading_t reading = try_read(options, target, image);
  if (reading.what == presence::present) return EXIT_OK;
  complain("%s: %s", target.label().c_str(), failure_text(target, reading).c_str());
  return reading.what == presence::absent ? EXIT_EMPTY : EXIT_FAILED;
}

exit_code check_writing(const options_t &options, const target_t &target) {
  if (!target.entry || options.has(OPT_FORCE) || service_has_routing()) return EXIT_OK;
  std::string others;
  if (writing_hazard(*target.entry, others) != hazard::shared) return EXIT_OK;  // reading tells the other hazard
  complain(
      "%s: not written: this libutils.so cannot be told the device, and knows %s by the same identity; --force "
      "writes all the same",
      target.label().c_str(), others.c_str());
  return EXIT_FAILED;
}

exit_code save_image(const std::string &path, std::span<const uint8_t> bytes) {
  const int error = write_file(path, bytes);
  if (error == 0) return EXIT_OK;
  std::string label = shown(path);
  if (path == standard_stream) label = "standard output";
  complain("%s: cannot write: %s", label.c_str(), error_text(error).c_str());
  return EXIT_FAILED;
}

exit_code write_to_file(const target_t &target, const image_t &image) {
  std::vector<uint8_t> content = target.file.content;
  std::ranges::copy(image, content.begin() + static_cast<std::ptrdiff_t>(target.base));
  return save_image(target.path, content);
}

}  // namespace tool

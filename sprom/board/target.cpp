#include "sprom/board/target.h"

#include <errno.h>

#include <algorithm>
#include <array>

#include "sprom/base/file.h"
#include "sprom/board/service.h"

namespace tool {
namespace {

exit_code of_entry(const options_t &options, const entry_t &entry, target_t &target) {
  target = {.kind = kind_by_type(entry.sprom->type), .entry = entry};
  target.is_raw = options.has(OPT_RAW) || (options.has(OPT_HEX) && !target.kind->has_layout());
  if (target.kind->has_layout() || target.is_raw) return EXIT_OK;
  complain("%s: a %s has no layout here", entry.sprom->name, target.kind->title);
  return EXIT_FAILED;
}

exit_code find_named(const options_t &options, const std::string &name, target_t &target) {
  const family_t *family = nullptr;
  if (const exit_code code = find_family(options, family); code != EXIT_OK) return code;
  if (const auto entry = find_sprom(*family, name)) return of_entry(options, *entry, target);
  return complain_no_sprom(*family, name);
}

// The unit at --bus and --addr. Its kind says how many address bytes its EEPROM takes.
exit_code find_unit(const options_t &options, const std::string *name, target_t &target) {
  constexpr const char *hint = "with --bus and --addr, a SPROM is named by its kind";
  if (name == nullptr) return complain_usage("%s (%s)", hint, layout_names().c_str());
  const kind_t *kind = kind_by_name(*name);
  if (kind == nullptr) return complain_usage("%s: %s (%s)", shown(*name).c_str(), hint, layout_names().c_str());
  return of_entry(options, unit_entry(*options.bus, *options.addr, *kind), target);
}

// The images of --file, of one kind or of any.
exit_code find_in_file(const options_t &options, const kind_t *kind, std::vector<target_t> &targets) {
  const auto file = load_image_file(*options.file, kind);
  if (!file) return EXIT_FAILED;
  for (const image_place_t &place : file->images)
    targets.push_back({.kind = place.kind, .entry = {}, .path = *options.file, .file = *file, .base = place.base});
  return EXIT_OK;
}

// The kind that the name of an image in a file means; null after a message, or for no name.
exit_code find_kind(const std::string *name, const kind_t *&kind) {
  kind = name == nullptr ? nullptr : kind_by_name(*name);
  if (name == nullptr || (kind != nullptr && kind->has_layout())) return EXIT_OK;
  return complain_usage("%s: with --file, a SPROM is named by its kind (%s)", shown(*name).c_str(),
                        layout_names().c_str());
}

exit_code only_of(const std::vector<target_t> &targets, target_t &target) {
  if (targets.size() != 1) {
    complain("%s: holds %zu images; name the kind that is meant", file_label(targets.front().path).c_str(),
             targets.size());
    return EXIT_FAILED;
  }
  target = targets.front();
  if (target.kind != &unknown_kind) return EXIT_OK;
  complain("%s: %s", target.label().c_str(), target.file.unknown_text(target.base).c_str());
  return EXIT_FAILED;
}

// Whether the service may read the SPROM; else *reason says why not.
bool may_read(const options_t &options, const target_t &target, std::string &reason) {
  if (is_unit(*target.entry) && !service_has_routing()) {
    reason = "not touched: this libutils.so takes no device address, and knows only those of the boards";
    return false;
  }
  std::string others;
  const hazard found = service_has_routing() ? hazard::none : reading_hazard(*target.entry, others);
  if (found == hazard::one_byte && !options.has(OPT_FORCE)) {
    reason =
        "not touched: its EEPROM takes one address byte, which this libutils.so does not support, so that reading "
        "would write to it; --force does it all the same";
    return false;
  }
  if (found != hazard::none && !others.empty())
    complain(
        "%s: this libutils.so takes no device address, and knows %s by the same identity: what is read may be "
        "another's",
        target.label().c_str(), others.c_str());
  return true;
}

// Whether this was not said yet: it is the same for all that is done under one lock.
bool is_news(const std::string &refusal) {
  static std::vector<std::string> said;
  if (std::ranges::find(said, refusal) != said.end()) return false;
  said.push_back(refusal);
  return true;
}

void warn_without_lock(const chip_lock_t &lock) {
  if (lock.is_held() || lock.is_busy() || !is_news(lock.refusal())) return;
  complain("%s; reading without the lock", lock.refusal().c_str());
}

// The probe's lock, taken when it first asks the supervisor's EEPROM: mostly the straps say enough.
class probe_lock_t {
 public:
  explicit probe_lock_t(uint32_t seconds) {
    wait = seconds;
    service_before_eeproms(take);
  }
  ~probe_lock_t() {
    service_before_eeproms(nullptr);
    lock.reset();
  }
  probe_lock_t(const probe_lock_t &) = delete;
  probe_lock_t &operator=(const probe_lock_t &) = delete;

  // Why the probe could not ask; "" if it could.
  [[nodiscard]] std::string refusal() const { return lock && lock->is_busy() ? lock->refusal() : ""; }

 private:
  static int32_t take() {
    if (!lock) warn_without_lock(lock.emplace(probed_device(), wait));
    return lock->is_busy() ? -EBUSY : 0;
  }

  static inline std::optional<chip_lock_t> lock;
  static inline uint32_t wait = 0;
};

reading_t try_bytes(const options_t &options, const target_t &target, std::span<uint8_t> bytes) {
  reading_t reading{presence::unknown, {0, 0}, ""};
  if (!may_read(options, target, reading.reason)) return reading;
  const chip_lock_t lock{target.entry->dev(), options.wait};
  if (lock.is_busy()) return {presence::busy, {0, 0}, lock.refusal()};
  warn_without_lock(lock);
  reading.transfer = target.is_raw ? read_chip(*target.entry, bytes) : read_image(*target.entry, bytes);
  reading.what = presence_of(*target.entry, reading.transfer);
  return reading;
}

}  // namespace

uint32_t target_t::size() const {
  return is_raw ? chip_size(*entry) : kind->size;
}

uint32_t target_t::start() const {
  return is_raw || !entry ? 0 : entry->dev().base;
}

std::vector<image_place_t> target_t::images() const {
  if (is_raw) return chip_images(*entry);
  return {{kind, 0}};
}

std::string target_t::name() const {
  if (entry) return entry->sprom->name;
  return path;
}

std::string target_t::label() const {
  if (entry) return label_of(*entry);
  std::string text = file_label(path);
  if (kind == &unknown_kind) {
    const std::array<uint8_t, 2> offset{static_cast<uint8_t>(base >> 8), static_cast<uint8_t>(base)};
    text += " (offset 0x" + hex_bytes(offset, "") + ")";
  } else if (file.content.size() != kind->size) {
    text = text + " (" + kind->title + " image)";
  }
  return text;
}

exit_code find_family(const options_t &options, const family_t *&family) {
  family = options.family != nullptr ? options.family : family_of_driver();
  if (family != nullptr) return EXIT_OK;
  std::string report;
  const probe_lock_t lock{options.wait};
  family = family_of_probe(report);
  if (family != nullptr) return EXIT_OK;
  if (!lock.refusal().empty()) {
    complain("%s: %s; --family names the board's family without asking it", device_text(probed_device()).c_str(),
             lock.refusal().c_str());
    return EXIT_BUSY;
  }
  (void)fputs(report.c_str(), stderr);
  complain("this is no board of a known family; --family names one, --file works on an image");
  return EXIT_FAILED;
}

const kind_t *kind_argument(const std::string &name) {
  const kind_t *kind = kind_by_name(name);
  if (kind == nullptr) {
    (void)complain_usage("%s: no such kind of image (%s)", shown(name).c_str(), layout_names().c_str());
  } else if (!kind->has_layout()) {
    (void)complain_usage("%s: this kind has no layout (%s have one)", kind->name, layout_names().c_str());
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
  if (options.bus) return find_unit(options, name, targets.emplace_back());
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
  if (options.bus) return find_unit(options, nullptr, target);
  const family_t *family = nullptr;
  if (const exit_code code = find_family(options, family); code != EXIT_OK) return code;
  std::vector<entry_t> entries = family_sproms(*family);
  std::erase_if(entries, [&](const entry_t &entry) { return entry.sprom->type != kind.type; });
  if (entries.size() == 1) return of_entry(options, entries.front(), target);
  if (entries.empty()) {
    complain("the %s boards have no %s SPROM", family_name(*family), kind.title);
  } else {
    complain("the %s boards have more than one %s SPROM; name the one that is meant", family_name(*family), kind.title);
  }
  return EXIT_FAILED;
}

reading_t try_read(const options_t &options, const target_t &target, image_t &image) {
  image.resize(target.size());
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
  if (reading.what == presence::absent)
    return (is_unit(*target.entry) ? "nothing answers: " : "the slot is empty: ") + error;
  return "cannot read byte " + std::to_string(reading.transfer.byte) + " of " + std::to_string(target.size()) + ": " +
         error;
}

exit_code complain_no_sprom(const family_t &family, const std::string &name) {
  const std::vector<entry_t> entries = family_sproms(family);
  std::vector<std::string_view> names;
  names.reserve(entries.size());
  for (const entry_t &entry : entries)
    names.emplace_back(entry.sprom->name);
  complain("%s: the %s boards have no such SPROM%s (see 'sprom list')", shown(name).c_str(), family_name(family),
           did_you_mean(name, names).c_str());
  return EXIT_FAILED;
}

exit_code status_of(presence what) {
  switch (what) {
    case presence::present:
      return EXIT_OK;
    case presence::absent:
      return EXIT_EMPTY;
    case presence::busy:
      return EXIT_BUSY;
    case presence::dead:
    case presence::unknown:
      break;
  }
  return EXIT_FAILED;
}

exit_code read_target(const options_t &options, const target_t &target, image_t &image) {
  const reading_t reading = try_read(options, target, image);
  if (reading.what != presence::present)
    complain("%s: %s", target.label().c_str(), failure_text(target, reading).c_str());
  return status_of(reading.what);
}

exit_code read_target_twice(const options_t &options, const target_t &target, image_t &image) {
  constexpr int most_reads = 5;
  exit_code code = read_target(options, target, image);
  if (!target.entry) return code;
  for (int reads = 2; code == EXIT_OK && reads <= most_reads; ++reads) {
    const image_t before = image;
    code = read_target(options, target, image);
    if (code == EXIT_OK && image == before) return EXIT_OK;
  }
  if (code == EXIT_OK)
    complain("%s: read %d times, and never twice alike: another program may be reading it without the lock",
             target.label().c_str(), most_reads);
  return code == EXIT_OK ? EXIT_FAILED : code;
}

exit_code lock_writing(const options_t &options, const target_t &target, const char *what,
                       std::optional<chip_lock_t> &lock) {
  if (!target.entry) return EXIT_OK;
  lock.emplace(target.entry->dev(), options.wait);
  if (lock->is_held()) return EXIT_OK;
  const std::string label = target.label();
  if (lock->is_busy()) {
    complain("%s: %s: %s", label.c_str(), what, lock->refusal().c_str());
    return EXIT_BUSY;
  }
  if (options.has(OPT_FORCE)) {
    if (is_news(lock->refusal())) complain("%s: %s", label.c_str(), lock->refusal().c_str());
    return EXIT_OK;
  }
  complain("%s: %s: %s; --force does it without the lock", label.c_str(), what, lock->refusal().c_str());
  return EXIT_FAILED;
}

exit_code check_writing(const options_t &options, const target_t &target) {
  if (!target.entry || options.has(OPT_FORCE) || service_has_routing()) return EXIT_OK;
  std::string others;
  if (writing_hazard(*target.entry, others) != hazard::shared) return EXIT_OK;  // reading reports the other hazard
  complain(
      "%s: not written: this libutils.so takes no device address, and knows %s by the same identity; --force "
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

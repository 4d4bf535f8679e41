#include "platform/mfgd/uspace/utils/sprom/tool/values.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "platform/mfgd/uspace/utils/sprom/tool/file.h"

namespace tool {
namespace {

constexpr size_t json_limit = 1 << 20;  // far above what `show --json` prints

// Puts one member of a block's "fields" into the image; "" or what is wrong with it.
std::string put_member(const kind_t &kind, const std::string &name, const json_t &value, image_t &image) {
  const field_t *field = field_by_name(kind, name);
  if (field == nullptr) return std::string{"a "} + kind.title + " image has no such field";
  std::string bytes;
  if (value.is_number_unsigned()) {
    bytes = std::to_string(value.get<uint64_t>());
  } else if (!value.is_string()) {
    return "is neither a text nor a number";
  } else if (!text_bytes(value.get_ref<const std::string &>(), bytes)) {
    return "has characters above U+00FF";
  }
  const field_source source = source_of(kind, *field);
  if (source == field_source::sum) return "";
  image_t changed = image;
  std::string error = parse_exact_value(*field, bytes, changed);
  if (!error.empty()) return error;
  if (source == field_source::format && changed != image) return "belongs to the format, which has another value";
  image = std::move(changed);
  return "";
}

exit_code put_block(const std::string &file, const kind_t &kind, const json_t &block, image_t &image) {
  const auto fields = block.is_object() ? block.find("fields") : block.end();
  if (fields == block.end() || !fields->is_object()) {
    complain("%s: a block without \"fields\"", file.c_str());
    return EXIT_FAILED;
  }
  for (const auto &[name, value] : fields->items()) {
    const std::string error = put_member(kind, name, value, image);
    if (error.empty()) continue;
    complain("%s: %s: %s", file.c_str(), shown(name).c_str(), error.c_str());
    return EXIT_FAILED;
  }
  return EXIT_OK;
}

// The fields of a JSON text on top of `image`, which has the format's own.
exit_code put_json(const std::string &path, const kind_t &kind, image_t &image) {
  const std::string name = file_label(path);
  std::vector<uint8_t> text;
  if (const int error = read_file(path, json_limit, text); error != 0) {
    complain("%s: cannot read: %s", name.c_str(), error_text(error).c_str());
    return EXIT_FAILED;
  }
  const json_t json = json_t::parse(text, nullptr, false);
  const auto blocks = json.is_object() ? json.find("blocks") : json.end();
  if (blocks == json.end() || !blocks->is_array()) {
    complain("%s: this is not what 'sprom show --json' prints", name.c_str());
    return EXIT_FAILED;
  }
  if (const auto found = json.find("kind"); found == json.end() || *found != kind.name) {
    complain("%s: this is no %s image", name.c_str(), kind.title);
    return EXIT_FAILED;
  }
  for (const json_t &block : *blocks) {
    if (const exit_code code = put_block(name, kind, block, image); code != EXIT_OK) return code;
  }
  return EXIT_OK;
}

exit_code put_option(const kind_t &kind, const std::string &name, const std::string &value, image_t &image) {
  const field_t *field = field_by_name(kind, name);
  if (field == nullptr)
    return complain_usage("a %s image has no field %s (see 'sprom fields')", kind.title, shown(name).c_str());
  const field_source source = source_of(kind, *field);
  if (source == field_source::sum) return complain_usage("%s is computed", name.c_str());
  if (source == field_source::format) return complain_usage("%s belongs to the format", name.c_str());
  const std::string error = parse_value(*field, value, image);
  return error.empty() ? EXIT_OK : complain_usage("%s: '%s' %s", name.c_str(), escaped(value).c_str(), error.c_str());
}

}  // namespace

exit_code set_fields(const options_t &options, const kind_t &kind, image_t &image) {
  const image_t before = image;
  if (options.from) {
    if (const exit_code code = put_json(*options.from, kind, image); code != EXIT_OK) return code;
  }
  for (const auto &[name, value] : options.fields) {
    if (const exit_code code = put_option(kind, name, value, image); code != EXIT_OK) return code;
  }
  for (const sprom_block_t &block : kind.blocks()) {
    const auto old_bytes = std::span{before}.subspan(block.offset, block.length);
    const auto new_bytes = std::span{image}.subspan(block.offset, block.length);
    if (!std::ranges::equal(old_bytes, new_bytes)) update_checksum(block, image);
  }
  return EXIT_OK;
}

}  // namespace tool

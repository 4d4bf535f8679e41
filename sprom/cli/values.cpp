#include "sprom/cli/values.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "sprom/base/file.h"

namespace tool {
namespace {

constexpr size_t json_limit = 1 << 20;  // far above what `show --json` prints

// An image that takes the fields of a JSON text.
struct taker_t {
  const kind_t &kind;
  image_t &image;
  bool takes_headers;
  const image_t format;                            // what belongs to the format has its values here
  std::vector<const sprom_block_t *> headed = {};  // blocks whose headers are taken
};

const sprom_block_t &block_of(const kind_t &kind, const field_t &field) {
  const auto blocks = kind.blocks();
  const auto next = std::ranges::upper_bound(blocks, field.offset, {}, &sprom_block_t::offset);
  return *std::prev(next);
}

// Takes a member that belongs to a block's header; "" or what is wrong with it.
std::string put_header(taker_t &to, const field_t &field, const std::string &value) {
  if (to.takes_headers) to.headed.push_back(&block_of(to.kind, field));
  if (source_of(to.kind, field) == field_source::sum) return "";
  image_t given = to.format;
  std::string error = parse_exact_value(field, value, given);
  if (!error.empty()) return error;
  if (given != to.format)
    return "is " + value_of(field, given) + ", but belongs to the format, which has " + value_of(field, to.format);
  if (to.takes_headers) std::copy_n(given.begin() + field.offset, field.width, to.image.begin() + field.offset);
  return "";
}

// Takes one member of a block's "fields"; "" or what is wrong with it.
std::string put_member(taker_t &to, const std::string &name, const json_t &value) {
  const field_t *field = field_by_name(to.kind, name);
  if (field == nullptr) return std::string{"a "} + to.kind.title + " image has no such field";
  std::string bytes;
  if (value.is_number_unsigned()) {
    bytes = std::to_string(value.get<uint64_t>());
  } else if (!value.is_string()) {
    return "is neither a text nor a number";
  } else if (!text_bytes(value.get_ref<const std::string &>(), bytes)) {
    return "has characters above U+00FF";
  }
  if (source_of(to.kind, *field) != field_source::user) return put_header(to, *field, bytes);
  return parse_exact_value(*field, bytes, to.image);
}

exit_code put_block(const std::string &file, const json_t &block, taker_t &to) {
  const auto fields = block.is_object() ? block.find("fields") : block.end();
  if (fields == block.end() || !fields->is_object()) {
    complain("%s: a block without \"fields\"", file.c_str());
    return EXIT_FAILED;
  }
  for (const auto &[name, value] : fields->items()) {
    const std::string error = put_member(to, name, value);
    if (error.empty()) continue;
    complain("%s: %s: %s", file.c_str(), shown(name).c_str(), error.c_str());
    return EXIT_FAILED;
  }
  return EXIT_OK;
}

// The fields of a JSON text.
exit_code put_json(const std::string &path, taker_t &to) {
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
  if (const auto found = json.find("kind"); found == json.end() || *found != to.kind.name) {
    complain("%s: this is no %s image", name.c_str(), to.kind.title);
    return EXIT_FAILED;
  }
  for (const json_t &block : *blocks) {
    if (const exit_code code = put_block(name, block, to); code != EXIT_OK) return code;
  }
  return EXIT_OK;
}

exit_code put_option(const kind_t &kind, const std::string &name, const std::string &value, image_t &image) {
  const field_t *field = field_by_name(kind, name);
  if (field == nullptr) return complain_no_field(kind, name);
  const field_source source = source_of(kind, *field);
  if (source == field_source::sum) return complain_usage("%s is computed", name.c_str());
  if (source == field_source::format) return complain_usage("%s belongs to the format", name.c_str());
  const std::string error = parse_value(*field, value, image);
  return error.empty() ? EXIT_OK : complain_usage("%s: '%s' %s", name.c_str(), escaped(value).c_str(), error.c_str());
}

}  // namespace

exit_code complain_no_field(const kind_t &kind, const std::string &name) {
  std::vector<std::string_view> names;
  names.reserve(kind.fields().size());
  for (const field_t &field : kind.fields())
    names.emplace_back(field.name);
  return complain_usage("a %s image has no field %s%s (see 'sprom fields')", kind.title, shown(name).c_str(),
                        did_you_mean(name, names).c_str());
}

exit_code set_fields(const options_t &options, const kind_t &kind, image_t &image) {
  const image_t before = image;
  taker_t taker{.kind = kind, .image = image, .takes_headers = options.has(OPT_FORCE), .format = new_image(kind)};
  if (options.from) {
    if (const exit_code code = put_json(*options.from, taker); code != EXIT_OK) return code;
  }
  for (const auto &[name, value] : options.fields) {
    if (const exit_code code = put_option(kind, name, value, image); code != EXIT_OK) return code;
  }
  for (const sprom_block_t &block : kind.blocks()) {
    const auto old_bytes = std::span{before}.subspan(block.offset, block.length);
    const auto new_bytes = std::span{image}.subspan(block.offset, block.length);
    const bool is_headed = std::ranges::find(taker.headed, &block) != taker.headed.end();
    if (is_headed || !std::ranges::equal(old_bytes, new_bytes)) update_checksum(block, image);
  }
  return EXIT_OK;
}

}  // namespace tool

#include "lab/results/identity.h"

#include <nlohmann/json.hpp>

#include "lab/base/text.h"

namespace lab {
namespace {

using nlohmann::json;

// The text of a field in whichever block holds it, printable.
std::string field(const json &blocks, const char *name) {
  for (const json &block : blocks) {
    const auto fields = block.find("fields");
    if (fields == block.end() || !fields->is_object()) continue;
    const auto found = fields->find(name);
    if (found != fields->end() && found->is_string()) return printable(found->get<std::string>());
  }
  return {};
}

std::optional<uint64_t> number(const json &blocks, const char *name) {
  const std::string text = field(blocks, name);
  std::string_view rest = text;
  if (!take(&rest, "0x")) return std::nullopt;
  const auto value = take_number<uint64_t>(&rest, 16);
  return rest.empty() ? value : std::nullopt;
}

}  // namespace

std::optional<board_identity> parse_identity(std::string_view text, std::string *error) {
  const json sprom = json::parse(text, nullptr, false);
  if (sprom.is_discarded()) {
    *error = "it is not JSON";
    return std::nullopt;
  }
  const auto blocks = sprom.is_object() ? sprom.find("blocks") : sprom.end();
  if (blocks == sprom.end() || !blocks->is_array() || sprom.value("kind", json()) != "sup") {
    *error = "it is not what 'sprom show --json' prints of a supervisor's SPROM";
    return std::nullopt;
  }
  board_identity board;
  board.part = field(*blocks, "product_id");
  board.serial = field(*blocks, "serial_number");
  board.card = number(*blocks, "card_index");
  board.change_bits = number(*blocks, "hw_change_bits");
  board.good = sprom.value("good", json()) == true;
  return board;
}

}  // namespace lab

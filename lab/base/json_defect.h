// json_defect.h: what is wrong with JSON that somebody gave, in this project's words.
#pragma once

#include <exception>
#include <nlohmann/json.hpp>
#include <string>

namespace lab {

// Of the library's words only the name of what is missing; other exceptions' words as they are.
inline std::string json_defect(const std::exception &wrong) {
  if (const auto *const parse = dynamic_cast<const nlohmann::json::parse_error *>(&wrong))
    return "it is not JSON, from byte " + std::to_string(parse->byte) + " on";
  std::string text = wrong.what();
  if (dynamic_cast<const nlohmann::json::exception *>(&wrong) == nullptr) return text;
  const auto key = text.find("key '");
  if (key != std::string::npos) return "it has another form: " + text.substr(key);
  const bool of_type = dynamic_cast<const nlohmann::json::type_error *>(&wrong) != nullptr;
  return std::string("it has another form: ") + (of_type ? "a value of another type" : "a value that does not fit");
}

}  // namespace lab

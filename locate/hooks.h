// hooks.h: the product's libraries report their errors through output hooks; here they become part of a reason.
#pragma once

#include <string>

namespace locate {

// The first line that the libraries reported since the last call, "" for none.
[[nodiscard]] std::string take_report();

}  // namespace locate

// ethtool.h: the board's own ethtool: self-tests of its Ethernet controllers.
#pragma once

#include <span>
#include <string>

namespace sim {

// Runs "ethtool ARGS..." on the board of the environment. Returns the exit status.
int ethtool_main(std::span<const std::string> args);

}  // namespace sim

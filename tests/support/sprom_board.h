// sprom_board.h: the `sprom` program on a simulated board.
#pragma once

#include "tests/support/sprom_tool.h"

class sprom_board : public sprom_tool {
 protected:
  // A run on the board of the state directory; `before` is what the shell reads before it.
  [[nodiscard]] outcome on(const std::string &board, const std::string &args, const std::string &before = "") const {
    return run_on(board, "sprom " + args, before);
  }
  [[nodiscard]] outcome run_on(const std::string &board, const std::string &command,
                               const std::string &before = "") const {
    return sh(before + "board-sim --state st --trace log " + board + " -- " + command);
  }
  // A new board; returns what an EEPROM of it holds.
  [[nodiscard]] bytes fresh(const std::string &board, const std::string &eeprom) const {
    EXPECT_EQ(sh("rm -rf st; board-sim --state st " + board + " -- sprom list").status, 0);
    return load("st/eeprom-" + eeprom);
  }
  // What all its EEPROMs hold.
  [[nodiscard]] std::map<std::string, std::string> eeproms() const {
    std::map<std::string, std::string> all;
    for (const auto &file : std::filesystem::directory_iterator(path("st")))
      if (file.path().filename().string().starts_with("eeprom-")) all[file.path().filename()] = read_file(file);
    return all;
  }
  // The last run's writes to the protection port and to expanders.
  [[nodiscard]] std::string pins() const {
    return sh(R"(sed -nE 's/^[^ ]+ ((port|i2c-[0-9]+:7.) w (24|32) )/\1/p' log)").out;
  }
  // Compares the status, how the errors end, and whether an EEPROM is another one afterwards.
  void expect_on(const std::string &board, const std::string &args, int status, const std::string &err,
                 bool is_written = false, const std::string &before = "") const {
    SCOPED_TRACE(board + " " + args);
    const auto chips = eeproms();
    const auto result = on(board, args, before);
    EXPECT_EQ(result.status, status) << result.out;
    EXPECT_THAT(result.err, EndsWith(err));
    EXPECT_EQ(result.err.empty(), err.empty());
    EXPECT_EQ(eeproms() != chips, is_written);
  }
  // A write that a fault cuts at its nth cycle claims nothing.
  void expect_cut(const std::string &board, const std::string &fault, size_t nth, const std::string &args) const {
    expect_run(on(board + " --fault '" + fault + " nth=" + std::to_string(nth) + "'", args),
               fault.starts_with("eeprom-dies") ? 1 : 137, Not(HasSubstr("reads back")), testing::_);
  }
  // How many bytes the last run wrote to an EEPROM.
  [[nodiscard]] size_t cycles(const std::string &eeprom, bool one_byte) const {
    std::string device = "i2c-" + eeprom;
    device.replace(device.rfind('-'), 1, ":");
    return std::stoul(sh("grep -cE '" + device + " w " + (one_byte ? "16" : "24") + "' log").out);
  }
};

inline bytes overlaid(bytes eeprom, size_t base, const bytes &image) {
  std::copy(image.begin(), image.end(), eeprom.begin() + static_cast<std::ptrdiff_t>(base));
  return eeprom;
}

inline bytes image_in(const bytes &eeprom, size_t base, uint32_t type) {
  const auto start = eeprom.begin() + static_cast<std::ptrdiff_t>(base);
  return {start, start + static_cast<std::ptrdiff_t>(device_image(type).size())};
}

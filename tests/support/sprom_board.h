// sprom_board.h: the `sprom` program on a simulated board.
#pragma once

#include "tests/support/sprom_tool.h"

const std::string supervisor = "SUPERVISOR (slot 1, index 1, /dev/i2c-1:0x52)";

// A board, as "FAMILY" and further options of board-sim, with a fault, if it has one.
inline std::string faulty(const std::string &board, const std::string &fault) {
  return fault.empty() ? board : board + " --fault '" + fault + "'";
}

class sprom_board : public sprom_tool {
 protected:
  // A run on the board of the state directory; `before` is what the shell reads before it.
  [[nodiscard]] outcome on(const std::string &board, const std::string &args, const std::string &before = "") const {
    return run_on(board, "sprom " + args, before);
  }
  [[nodiscard]] outcome run_on(const std::string &board, const std::string &command,
                               const std::string &before = "") const {
    return sh(before + "board-sim --state st --trace log --family " + board + " -- " + command);
  }
  // A new board; returns what an EEPROM of it holds.
  [[nodiscard]] bytes fresh(const std::string &board, const std::string &eeprom) const {
    EXPECT_EQ(sh("rm -rf st; board-sim --state st --family " + board + " -- sprom list").status, 0);
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
  // Cuts a write at each of its bytes, with these bits of the cell torn: the run is killed, or the EEPROM dies. It
  // claims nothing, and asked again, the board gets its contents.
  void cut_everywhere(const std::string &board, const std::string &eeprom, const std::string &write, size_t needed,
                      const std::vector<std::string> &torn, const bytes &wanted,
                      const std::function<void(const bytes &left)> &look) const {
    const std::string file = "st/eeprom-" + eeprom, at = std::string{eeprom}.replace(eeprom.find('-'), 1, " addr=0x");
    const bytes before = load(file);
    for (size_t nth = 1; nth <= needed; ++nth) {
      for (const std::string how : {"eeprom-power-cut bus=", "eeprom-dies bus="}) {
        for (const std::string &bits : torn) {
          save(file, before);
          const auto fault = how + at + " torn=" + bits + " nth=" + std::to_string(nth);
          SCOPED_TRACE(fault);
          const auto run = on(faulty(board, fault), write, "rm -f old\n");
          expect_run(run, how[7] == 'd' ? 1 : 137, Not(HasSubstr("reads back")), _);
          look(load(file));
        }
      }
      expect_run(on(board, write, "rm -f old\n"), 0, _);
      EXPECT_TRUE(load(file) == wanted);
    }
  }
  // How many bytes the last run wrote to an EEPROM.
  [[nodiscard]] size_t cycles(const std::string &eeprom, bool one_byte) const {
    std::string device = "i2c-" + eeprom;
    device.replace(device.rfind('-'), 1, ":");
    return std::stoul(sh("grep -cE '" + device + " w " + (one_byte ? "16" : "24") + "' log").out);
  }
};

inline bytes image_in(const bytes &eeprom, size_t base, uint32_t type) {
  const auto start = eeprom.begin() + static_cast<std::ptrdiff_t>(base);
  return {start, start + static_cast<std::ptrdiff_t>(device_image(type).size())};
}

# test_howto.sh CASE SOURCES BUILD CXX FLAGS...: follows a page of docs/howto.md in a few files beside the tree, which they hide.
set -eu
sources=$2
build=$3
cxx=$4
flags=("${@:5}")
dir=$(mktemp -d)
trap 'rm -r -- "$dir"' EXIT

# change FILE WORDS LINE [TEXT]: a copy of the file with a line after the only one that contains the words, and with a
# text before the words.
change() {
  mkdir -p "$(dirname "$dir/$1")"
  [ -e "$dir/$1" ] || cp "$sources/$1" "$dir/$1"
  [ "$(grep -cF -- "$2" "$dir/$1")" = 1 ] || { echo "$1: not one line has: $2" && exit 1; }
  awk -v words="$2" -v line="$3" -v text="${4-}" '{ at = index($0, words) }
    at { $0 = substr($0, 1, at - 1) text substr($0, at) } { print } at && line { print line }' "$dir/$1" >"$dir/changed"
  mv "$dir/changed" "$dir/$1"
}

compile() {
  "$cxx" "${flags[@]}" -std=c++20 -O0 -I"$dir" -I"$sources" -I"$sources/include" -o "$dir/program" "$@"
}

# The page names each file that the case changes.
named() {
  for file in "$@"; do
    awk -v head="$heading" '/^## / { on = $0 == head } on' "$sources/docs/howto.md" | grep -qF -- "$file" ||
      { echo "$heading does not name $file" && exit 1; }
  done
}

# A new fault is in the list and nothing else changes there; the memories that have it are not mapped directly.
fault() {
  heading='## Add a fault'
  named faults/fault.h faults/fault.cpp models/fault.cpp parm_names
  change faults/fault.h 'nvram_cell_coupled_state, nvram_cell_coupled_transition, nvram_power_cut,' 'nvram_demo,'
  change faults/fault.h 'times, p,' '' 'depth, '
  change faults/fault.cpp '{id::nvram_power_cut,' \
    '{id::nvram_demo, part::nvram, when::lasting, "nvram-demo", {}, {instance, may(number(parm::depth, 1, 9), 4)}, "a demo"},'
  change faults/fault.cpp '{parm::times, "times"}, {parm::p, "p"},' '' '{parm::depth, "depth"}, '
  cat >"$dir/main.cpp" <<'END'
#include <cstdio>
#include "models/nvram.h"
static uint8_t bytes[0x8000];
int main() {
  std::string error;
  const auto f = sim::fault_parse("nvram-demo instance=1", &error);
  if (!f || f->get(sim::parm::depth) != 4) return 1;
  const auto chip = models::chip_fault_of(*f);
  if (models::nvram(models::memory(bytes), {&chip, 1}).healthy()) return 2;
  std::printf("%s", sim::fault_list().c_str());
}
END
  compile "$dir/main.cpp" "$dir/faults/fault.cpp" "$sources"/faults/{list,parse}.cpp \
    "$sources"/models/{fault,lines,cells,memory,nvram}.cpp
  "$dir/program" >"$dir/after"
  "$build/bin/board-sim" --list-faults >"$dir/before"
  diff "$dir/before" "$dir/after" >"$dir/diff" || true
  cat >"$dir/expected" <<'END'
> nvram-demo instance=0..2 [depth=1..9:4] [WHEN]
>     a demo
>     --fault "nvram-demo instance=1"
END
  tail -n +2 "$dir/diff" | diff "$dir/expected" -
}

# A new device answers at its address of its family, and nowhere else.
device() {
  heading='## Add a device to a bus'
  named sim/devices/ sim/CMakeLists.txt sim/board/i2c_board.cpp device_rows
  mkdir -p "$dir/sim/devices" "$dir/state/dev"
  cat >"$dir/sim/devices/demo.h" <<'END'
#include "sim/bus/i2c.h"
namespace sim {
struct demo : i2c_device {
  bool start(bool) override { return true; }
  bool write(uint8_t) override { return false; }
  uint8_t read() override { return 0x5A; }
  void stop() override {}
};
}  // namespace sim
END
  change sim/board/i2c_board.cpp '#include "sim/devices/eeprom.h"' '#include "sim/devices/demo.h"'
  change sim/board/i2c_board.cpp 'device_row::maker make_pca9539;' \
    'std::unique_ptr<i2c_device> make_demo(const device_row &, const options &, files *, std::string *) { return std::make_unique<demo>(); }'
  change sim/board/i2c_board.cpp '{on_pellin, 20, 0x76, device_kind::expander, make_pca9539},' \
    '{on_tosk, 8, 0x48, device_kind::other, make_demo},'
  cat >"$dir/main.cpp" <<'END'
#include <cstdio>
#include "sim/board/i2c_board.h"
#include "sim/devices/port.h"
int main(int, char **argv) {
  for (const auto family : {sim::family::pellin, sim::family::tosk}) {
    sim::options opts;
    opts.family = family;
    opts.state = argv[1];
    std::string error;
    sim::io_port port(opts);
    const auto board = sim::i2c_board::make(opts, port, &error);
    if (board == nullptr) return std::printf("%s\n", error.c_str());
    for (const auto number : sim::i2c_bus_numbers(opts)) {
      std::printf("%u:", number);
      for (unsigned addr = 3; addr < 0x78; ++addr) {
        uint8_t byte = 0;
        sim::i2c_message message{static_cast<uint8_t>(addr), true, {&byte, 1}};
        if (board->bus(number)->transfer({&message, 1}) == 0) std::printf(" %02x=%02x", addr, byte);
      }
      std::printf("\n");
    }
  }
}
END
  local libraries="$build/sim/libsim_board.a $build/sim/libsim_devices.a $build/sim/libsim_bus.a $build/sim/libsim_base.a"
  libraries="$libraries $build/models/libmodels.a $build/faults/libfaults.a -ldl"
  # shellcheck disable=SC2086  # several words
  (cd "$build" && libraries=${libraries//"$build/"/} && compile "$dir/main.cpp" $libraries)
  "$dir/program" "$dir/state" >"$dir/before"
  rm -r "$dir/state"
  mkdir -p "$dir/state/dev"
  # shellcheck disable=SC2086
  (cd "$build" && libraries=${libraries//"$build/"/} &&
    compile "$dir/main.cpp" "$dir/sim/board/i2c_board.cpp" $libraries)
  "$dir/program" "$dir/state" >"$dir/after"
  diff "$dir/before" "$dir/after" >"$dir/diff" || true
  [ "$(grep -c '^>' "$dir/diff")" = 1 ] && [ "$(sed -n 's/^> \(.*\) 48=5a\(.*\)/< \1\2/p' "$dir/diff")" = "$(grep '^<' "$dir/diff")" ] ||
    { cat "$dir/diff" && exit 1; }
}

"$1"

# Shared by the commands of this directory: what they need on the machine, and how they build. Sourced, not run.
set -eu
unset CDPATH
root=$(cd -P -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd)
me=${0##*/}

# Counting for coverage, a test that limits its files' sizes would meet complaints among what the program says.
export GCOV_ERROR_FILE=/dev/null

# A child may take an interruption for its own and end normally: the command ends by the signal all the same.
trap 'trap - INT; kill -INT $$' INT

# A message that cannot be written does not end the command.
note() { printf '%s\n' "$*" >&2 || true; }
fail() {
  note "$me: $*"
  exit 1
}
wrong_usage() {
  note "$me: $*"
  note "Try 'tools/$me --help'."
  exit 2
}

# help_before_dashes ARGUMENTS...: prints $usage and ends where help is asked for, of this command and not of what it
# runs.
help_before_dashes() {
  local argument
  for argument in "$@"; do
    case $argument in
      --) return ;;
      -h | --help)
        echo "$usage"
        exit
        ;;
    esac
  done
}

# Things that the commands use: Debian's packages of each, and what it is for.
declare -A packages purpose
thing() { purpose[$1]=$2 packages[$1]=$3; }
#     name        what for                                              Debian packages
thing compiler   'C++20'                                                g++
thing cmake      'the build'                                            cmake
thing ninja      'the build'                                            ninja-build
thing lab        'JSON and options in sprom and the lab programs'       'nlohmann-json3-dev libcli11-dev'
thing multilib   'the 32-bit product'                                   g++-multilib
thing googletest 'tests'                                                googletest
thing formats    'tests of the formats that programs write'             'jq libxml2-utils perl python3-jsonschema'
thing sanitizers 'preset asan'                                          'libasan8 libubsan1'
thing clang      'preset clang'                                         clang
thing fuzzer     'preset fuzz'                                          'clang libclang-rt-dev'
thing format     'the layout of sources'                                clang-format-14
thing tidy       'faults that reading finds'                            clang-tidy-14
thing gcovr      'coverage'                                             gcovr
thing jq         'reports'                                              jq
thing python     'pictures'                                             python3
thing browser    'the picture of a campaign'                            'chromium fonts-dejavu-core'
thing promtool   'tests of the metrics and alerts'                      prometheus
thing benchmark  'benchmarks'                                           libbenchmark-dev
thing peers      'the timers that ours are measured against'            'libevent-dev libuv1-dev'
thing packaging  'Debian packages, and clean roots to build and try them' \
  'debootstrap dpkg-dev lintian blhc'
thing machine    'a machine that boots them'                            'qemu-system-x86 e2fsprogs'
thing benchmark_32 'benchmarks in 32 bits'                              libbenchmark-dev:i386
thing peers_32   'the timers that ours are measured against, in 32 bits' \
  'libuv1-dev:i386 libevent-core-2.1-7:i386'
thing qemu_arm   'the models that ours are held against'                qemu-system-arm
thing objdump    'what ours is held against'                            binutils
thing gdb        'the debugger'                                         gdb
thing cluster    'a cluster of this one machine'                        'slurm-wlm munge'
thing qemu_i386  'a machine for a real 32-bit kernel'                   'qemu-system-x86 cpio'
build_things=(compiler cmake ninja)

# have THING: succeeds if it is installed, by any means.
have() {
  case $1 in
    compiler) commands g++ && echo 'int main() { return 0; }' | makes g++ ;;
    cmake) commands cmake ctest ;;
    ninja) commands ninja ;;
    lab) includes nlohmann/json.hpp && includes CLI/CLI.hpp ;;
    multilib) echo 'int main() { return 0; }' | makes g++ -m32 ;;
    googletest) has_googletest_sources || { ! commands apt-get && has_own_googletest; } ;;
    formats) commands jq xmllint prove python3 && python3 -c 'import jsonschema' 2>/dev/null ;;
    sanitizers) echo 'int main() { return 0; }' | makes g++ -fsanitize=address,undefined ;;
    clang) commands clang++ && printf '#include <span>\nint main() { return 0; }\n' | makes clang++ -std=c++20 ;;
    fuzzer) commands clang++ && printf '#include <stddef.h>\n%s\n' \
      'extern "C" int LLVMFuzzerTestOneInput(const unsigned char *, size_t) { return 0; }' |
      makes clang++ -fsanitize=fuzzer,address,undefined -- -runs=1 ;;
    format) [ -n "$(version_14 clang-format)" ] ;;
    tidy) [ -n "$(version_14 clang-tidy)" ] ;;
    gcovr) commands gcovr gcov ;;
    jq) commands jq ;;
    python) commands python3 ;;
    browser) commands chromium ;;
    promtool) commands promtool ;;
    benchmark) includes benchmark/benchmark.h ;;
    packaging) commands debootstrap dpkg-deb lintian blhc ;;
    machine) commands qemu-system-x86_64 mke2fs debugfs ;;
    peers) includes event2/event.h && includes uv.h ;;
    qemu_arm) commands qemu-system-arm ;;
    objdump) commands objdump ;;
    gdb) commands gdb ;;
    qemu_i386) commands qemu-system-i386 cpio ;;
    cluster) commands slurmctld slurmd munged sbatch ;;
    benchmark_32) printf '#include <benchmark/benchmark.h>\nBENCHMARK_MAIN();\n' |
      makes g++ -m32 -L/usr/lib/i386-linux-gnu -lbenchmark -- --benchmark_list_tests ;;
    peers_32) echo 'int main() { return 0; }' |
      makes g++ -m32 -L/usr/lib/i386-linux-gnu -luv -l:libevent_core-2.1.so.7 ;;
  esac
}

commands() {
  local name
  for name in "$@"; do command -v "$name" >/dev/null || return 1; done
}
includes() { printf '#if !__has_include(<%s>)\n#error\n#endif\n' "$1" | g++ -E -x c++ - >/dev/null 2>&1; }

# makes COMPILER FLAGS... [-- ARGUMENTS...]: succeeds if the program on standard input can be built and runs.
makes() (
  flags=()
  while [ $# != 0 ] && [ "$1" != -- ]; do
    flags+=("$1")
    shift
  done
  [ $# = 0 ] || shift
  dir=$(mktemp -d) || exit 1
  trap 'rm -r -- "$dir"' EXIT
  cat >"$dir/probe.cpp"
  "${flags[0]}" "$dir/probe.cpp" "${flags[@]:1}" -o "$dir/probe" >/dev/null 2>&1 &&
    "$dir/probe" "$@" >/dev/null 2>&1
)

# For 32-bit tests. For others a library of the machine's own will do, where there are no such packages.
has_googletest_sources() { [ -e "${GOOGLETEST_SOURCES:-/usr/src/googletest}/CMakeLists.txt" ]; }
has_own_googletest() {
  printf '#include <gmock/gmock.h>\nTEST(a, b) {}\n' | makes g++ -lgtest_main -lgmock -lgtest -pthread
}

# version_14 COMMAND: prints under what name it is here. Other versions lay sources out and judge them otherwise.
version_14() {
  local name
  for name in "$1-14" "$1"; do
    if "$name" --version 2>/dev/null | grep -q 'version 14\.'; then
      echo "$name"
      return
    fi
  done
}

# other_version THING: says which version is here where only 14 serves.
other_version() {
  local version
  case $1 in format | tidy) ;; *) return 0 ;; esac
  version=$("clang-$1" --version 2>/dev/null | sed -nE 's/.*version ([0-9.]+).*/\1/p') || true
  [ -z "$version" ] || note "$me: clang-$1 is version $version here; version 14 is wanted."
}

# want THING...: installs what is missing, if it can. Fails if something stays missing.
want() {
  local thing name missing=() names=() reasons=''
  # Whether a thing works is tried in a folder there.
  local folder=${TMPDIR:-/tmp}
  { [ -d "$folder" ] && [ -w "$folder" ]; } || fail "TMPDIR=$folder is no folder that can be written"
  for thing in "$@"; do
    have "$thing" && continue
    missing+=("$thing")
    [[ "; $reasons; " = *"; ${purpose[$thing]}; "* ]] || reasons+="${reasons:+; }${purpose[$thing]}"
    for name in ${packages[$thing]}; do is_installed "$name" || names+=("$name"); done
  done
  [ ${#missing[@]} = 0 ] && return 0
  [ ${#names[@]} != 0 ] || return 1
  install_packages "$reasons" "${names[@]}" || return 1
  for thing in "${missing[@]}"; do have "$thing" || return 1; done
}

is_installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'ok installed'; }

# need THING...: as want, but the command ends without them. It also says what of $useful is missing.
useful=()
need() {
  want "$@" && return 0
  local thing needed=''
  for thing in "$@"; do
    have "$thing" && continue
    needed+=" ${packages[$thing]}"
    other_version "$thing"
  done
  note "$me: something is missing. Type, as root: apt-get install$needed" \
    "(Debian's names; on another distribution, what these packages hold)"
  for thing in "${useful[@]}"; do
    have "$thing" || note "$me: for ${purpose[$thing]}, also: apt-get install ${packages[$thing]}"
  done
  exit 1
}

# install_packages REASON PACKAGE...: by apt-get, as root or by sudo. What they say is shown where they fail.
install_packages() {
  local reason=$1 as_root=() log status=0
  shift
  [ -z "${no_installing:-}" ] && commands apt-get || return 1
  if [ "$(id -u)" = 0 ]; then
    export DEBIAN_FRONTEND=noninteractive
  else
    commands sudo || return 1
    note "$me: asking sudo for the right to run: apt-get install $* (for: $reason)"
    # A user who declines is not asked again.
    sudo apt-get --version >/dev/null || { no_installing=1; return 1; }
    as_root=(sudo)
  fi
  mkdir -p "$root/build"
  log=$root/build/install.log
  quiet_seconds=0 step "$me: installing $* (for: $reason)" "$log" run_apt_get "$@" || status=1
  lists_are_new=1
  [ $status = 0 ] || cat "$log" >&2
  [ $status != 0 ] || installed=1
  return $status
}
run_apt_get() {
  [ -n "${lists_are_new:-}" ] || "${as_root[@]}" apt-get update || true
  "${as_root[@]}" apt-get -o DPkg::Lock::Timeout=600 install -y --no-remove --no-install-recommends "$@"
}

# Succeeds if messages go to a terminal that can clear a line.
shows_lines_again() { [ -t 2 ] && [ "${TERM:-dumb}" != dumb ]; }

# step TITLE LOG COMMAND...: runs a command, its output in the file LOG. Announces it, says how far it is (on a terminal
# as it goes, else every $progress_seconds), and how long it took. Says nothing where the command succeeds within
# $quiet_seconds, such as a build of what is up to date. Returns the command's status.
step() {
  local title=$1 log=$2 quiet=${quiet_seconds:-0} began=$SECONDS status
  shift 2
  [ "$quiet" != 0 ] || note "$title"
  "$@" 2>&1 </dev/null | tee -- "$log" | show_progress "$title" "$quiet"
  status=${PIPESTATUS[0]}
  local took=$((SECONDS - began)) how=''
  [ "$status" = 0 ] || how=', failed'
  if [ "$status" != 0 ] || [ "$quiet" = 0 ] || [ $took -ge "$quiet" ]; then note "$title ($took s$how)"; fi
  return "$status"
}

# show_progress TITLE QUIET: of a step's output, the last of ninja's "[12/345]" or ctest's "12/345 Test".
show_progress() {
  local line='' part status at='' began=$SECONDS next=$2 terminal=''
  ! shows_lines_again || terminal=1
  [ "$2" != 0 ] || next=${progress_seconds:-30}
  while true; do
    status=0
    IFS= read -r -t 1 part || status=$?
    line+=$part
    if [ $status = 0 ]; then
      [[ ! $line =~ ^\[([0-9]+/[0-9]+)\]|^\ *([0-9]+/[0-9]+)\ Test ]] || at=": ${BASH_REMATCH[1]}${BASH_REMATCH[2]}"
      line=''
    elif [ $status -le 128 ]; then # the end; above that, a second without a line
      break
    fi
    [ -z "$terminal" ] || [ $((SECONDS - began)) -lt "$2" ] || printf '\r\033[K%s%s' "$1" "$at" >&2
    [ -z "$terminal" ] && [ $((SECONDS - began)) -ge "$next" ] || continue
    if [ "$next" = "$2" ]; then note "$1"; else note "$1$at, $((SECONDS - began)) s so far"; fi
    next=$((SECONDS - began + ${progress_seconds:-30}))
  done
  [ -z "$terminal" ] || printf '\r\033[K' >&2
}

# say_how_far TEXT: for loops of many runs: the text on a terminal, else a line now and then.
said_last=$SECONDS
say_how_far() {
  if shows_lines_again; then
    printf '\r\033[K%s' "$1" >&2
  elif [ $((SECONDS - said_last)) -ge "${progress_seconds:-30}" ]; then
    note "$1"
    said_last=$SECONDS
  fi
}
clear_how_far() { ! shows_lines_again || printf '\r\033[K' >&2; }

# choose_product: sets $product to the product's preset, board where it can be built, else host with a notice.
choose_product() {
  product=board
  is_configured board || want multilib && return 0
  note "$me: 32-bit programs cannot be built and run here (Debian: ${packages[multilib]}):" \
    "going on with the native build."
  product=host
}

# is_configured PRESET: succeeds if its build directory was made for this checkout, at its present place.
is_configured() {
  local made_for
  made_for=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$root/build/$1/CMakeCache.txt" 2>/dev/null) || return 1
  [ "$made_for" -ef "$root" ] && [ -e "$root/build/$1/build.ninja" ]
}

# configure PRESET: for the first time, or again.
configure() {
  local options=()
  is_configured "$1" || options=(--fresh)
  [ -z "${GOOGLETEST_SOURCES:-}" ] || options+=("-DPOST_GOOGLETEST_SOURCES=$GOOGLETEST_SOURCES")
  mkdir -p "$root/build"
  quiet_seconds=0 step "$1: configure" "$root/build/$1.log" cmake -S "$root" --preset "$1" "${options[@]}" ||
    show_log_and_fail "$1"
  configured[$1]=1
}
declare -A configured=() # in this run

# build PRESET [TARGET...]: builds what is out of date. Configures before where that is not done, where it did not know
# all the targets, and where something was installed since: a build leaves out what lacks its libraries.
build() {
  local preset=$1 targets=()
  shift
  [ $# = 0 ] || targets=(--target "$@")
  if ! is_configured "$preset" || ! knows "$preset" "$@" || [ -n "${installed:-}" ] && [ -z "${configured[$preset]:-}" ]
  then configure "$preset"; fi
  step "$preset: build" "$root/build/$preset.log" cmake --build "$root/build/$preset" "${targets[@]}" ||
    show_log_and_fail "$preset"
}

# knows PRESET TARGET...
knows() {
  local build=$root/build/$1 target
  for target in "${@:2}"; do ninja -C "$build" -t query "$target" >/dev/null 2>&1 || return 1; done
}

# build_programs: the product's programs, all that this machine has the libraries for; where they are is in $bin.
build_programs() {
  local targets=(programs) useful=(multilib lab)
  need "${build_things[@]}"
  choose_product
  # One program of the lab, for build to see whether they are known.
  if want lab; then targets+=(post-results); else
    note "$me: no JSON and CLI headers here (Debian: ${packages[lab]}): sprom and the lab programs are left out."
  fi
  build "$product" "${targets[@]}"
  bin=$root/build/$product/bin
}

show_log_and_fail() {
  cat "$root/build/$1.log" >&2
  exit 1
}

# kernel_version: prints "6.1". What follows is a build of one machine or distribution.
kernel_version() { uname -r | sed -E 's/^([0-9]+\.[0-9]+).*/\1/'; }

case $(uname -sm) in
  Linux\ x86_64 | Linux\ i[3-6]86) ;;
  *) fail "POST runs on x86 Linux only; this is $(uname -sm)." ;;
esac

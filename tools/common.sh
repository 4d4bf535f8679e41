# Shared by the commands of this directory: what they need installed and how they build. Sourced, not run.
set -eu
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Debian packages, by what they are for.
packages_build=(g++ cmake ninja-build)
packages_32=(g++-multilib)
packages_test=(googletest python3)
packages_sanitizers=(libasan8 libubsan1)
packages_clang=(clang)
packages_style=(clang-format clang-tidy)
packages_bench=(libbenchmark-dev libevent-dev libuv1-dev pkg-config)

note() { printf '%s\n' "$*" >&2; }

# installed PACKAGE...: succeeds if all of them are.
installed() {
  local package
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || return 1
  done
}

# want PACKAGE...: installs what is missing. Fails if that cannot be done.
want() {
  installed "$@" && return 0
  command -v apt-get >/dev/null || return 1
  local as_root=()
  [ "$(id -u)" = 0 ] || as_root=(sudo)
  if [ -z "${apt_updated:-}" ]; then
    "${as_root[@]}" apt-get update >/dev/null 2>&1 || true
    apt_updated=1
  fi
  note "Installing $*"
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "$@" >/dev/null 2>&1
}

# need PACKAGE...: as want, but the command ends without them.
need() {
  want "$@" && return 0
  note "Cannot install: $*"
  exit 1
}

# makes_32bit: succeeds if this machine builds and runs 32-bit programs.
makes_32bit() {
  local dir ok=1
  dir=$(mktemp -d)
  echo 'int main() { return 0; }' >"$dir/probe.cpp"
  g++ -m32 "$dir/probe.cpp" -o "$dir/probe" 2>/dev/null && "$dir/probe" && ok=0
  rm -r "$dir"
  return $ok
}

# product_preset: prints the preset of the product, board where it can be built, else host with a notice.
product_preset() {
  if [ -e build/board/build.ninja ]; then
    echo board
    return
  fi
  want "${packages_32[@]}" || true
  if makes_32bit; then
    echo board
  else
    note 'No 32-bit toolchain here: going on with the native build.'
    echo host
  fi
}

# build PRESET [TARGET...]: configures at the first call, then builds what is out of date. Quiet unless it fails.
build() {
  local preset=$1 log=build/$1.log
  shift
  mkdir -p build
  [ -e "build/$preset/build.ninja" ] || configure "$preset"
  local targets=()
  [ $# = 0 ] || targets=(--target "$@")
  cmake --build --preset "$preset" "${targets[@]}" >"$log" 2>&1 || { cat "$log" >&2; exit 1; }
}

configure() {
  mkdir -p build
  cmake --preset "$1" >"build/$1.log" 2>&1 || { cat "build/$1.log" >&2; exit 1; }
}

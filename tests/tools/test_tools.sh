# test_tools.sh CASE: one case of the commands in tools/.
set -eu
tools=$(cd "$(dirname "$0")/../../tools" && pwd)
dir=$(mktemp -d)
trap 'rm -r -- "$dir"' EXIT
checkout="$dir/a checkout"
mkdir -p "$checkout/tools" "$dir/bin" "$dir/elsewhere"
cp "$tools"/* "$checkout/tools/" 2>/dev/null || true

# stand_in COMMAND: a command of the tests' own; standard input is its text. Each call is noted in $dir/calls.
stand_in() {
  rm -f "$dir/bin/$1"
  { printf '#!/bin/bash\necho "%s $*" >>"%s/calls"\n' "$1" "$dir" && cat; } >"$dir/bin/$1"
  chmod +x "$dir/bin/$1"
}

# Only what every Linux machine has.
for command in bash sh env cat cut dirname readlink mkdir mktemp rm sed awk grep uname id tee nproc printf sort head ls; do
  ln -s "$(type -P "$command")" "$dir/bin/$command"
done
: >"$dir/calls"

# expect STATUS WORDS COMMAND...: runs a command elsewhere, with the stand-ins only; all it says must contain the words.
expect() {
  local status=0
  (cd "$dir/elsewhere" && PATH="$dir/bin" "${@:3}") >"$dir/said" 2>&1 </dev/null || status=$?
  if [ $status != "$1" ] || ! grep -qF -- "$2" "$dir/said"; then
    printf 'Expected %s and "%s" of: %s\nGot %s:\n' "$1" "$2" "${*:3}" $status
    cat "$dir/said"
    exit 1
  fi
}

# never FILE WORDS: they do not stand in the file.
never() {
  if grep -F -- "$2" "$dir/$1"; then
    echo "That should not be in: $1"
    exit 1
  fi
}

# What a build needs, without building: cmake makes a program that tells where it runs and with what.
toolchain() {
  stand_in g++ <<<'while [ $# != 0 ]; do [ "$1" != -o ] || { echo "#!/bin/sh" >"$2" && chmod +x "$2"; }; shift; done'
  stand_in ninja </dev/null
  ln -s "$(type -P chmod)" "$dir/bin/chmod"
  stand_in cmake <<'END'
if [ "$1" = -S ]; then
  mkdir -p "$2/build/$4/bin"
  echo "CMAKE_HOME_DIRECTORY:INTERNAL=$2" >"$2/build/$4/CMakeCache.txt"
  : >"$2/build/$4/build.ninja"
  printf '#!/bin/bash\necho "in $PWD:$(printf " <%%s>" "$@")"\n' >"$2/build/$4/bin/board-sim"
  cat "$2/build/$4/bin/board-sim" >"$2/build/$4/bin/post-campaign"
  chmod +x "$2/build/$4/bin"/*
fi
END
  stand_in ctest </dev/null
  mkdir -p "$dir/googletest"
  : >"$dir/googletest/CMakeLists.txt"
  export GOOGLETEST_SOURCES="$dir/googletest"
}

arguments() {
  for tool in run-tests run-fuzz run-peers run-load check-style check-packages coverage cut-audit mutate bench; do
    expect 0 "Usage: tools/$tool" "$checkout/tools/$tool" --help
    expect 2 "Try 'tools/$tool --help'." "$checkout/tools/$tool" --no-such-option
  done
  expect 2 'no such preset or option: windows' "$checkout/tools/run-tests" host windows
  [ ! -s "$dir/calls" ]
}

machine_that_cannot() {
  expect 1 'Type, as root: apt-get install g++ cmake ninja-build' "$checkout/tools/run-post"
  expect 77 'nothing is checked' "$checkout/tools/check-packages"
  stand_in uname <<<'echo Linux aarch64'
  expect 1 'POST runs on x86 Linux only; this is Linux aarch64.' "$checkout/tools/run-post"
}

package_manager_fails() {
  stand_in id <<<'echo 0'
  stand_in apt-get <<<'echo "E: words of its own"; exit 100'
  expect 1 'E: words of its own' "$checkout/tools/run-post"
  expect 1 'Type, as root: apt-get install g++' "$checkout/tools/run-post"
  grep -q '^apt-get update' "$dir/calls"
}

sudo_declined() {
  toolchain
  rm "$dir/bin/ninja"
  stand_in id <<<'echo 1000'
  stand_in apt-get </dev/null
  stand_in sudo <<<'echo "sudo: declined"; exit 1'
  expect 1 'asking sudo for the right to run: apt-get install ninja-build (for: the build)' "$checkout/tools/run-post"
  never calls 'apt-get update'
  # What tests can do without is asked for once in all.
  stand_in ninja </dev/null
  stand_in ctest <<<'echo "100% tests passed, 0 tests failed out of 2"'
  : >"$dir/calls"
  expect 0 'no clang here (Debian: clang): leaving it out.' "$checkout/tools/run-tests"
  [ "$(tail -n 1 "$dir/said")" = '6 passed, 0 failed' ]
  [ "$(grep -c '^sudo' "$dir/calls")" = 1 ]
}

no_32_bits() {
  toolchain
  cp "$dir/bin/g++" "$dir/bin/g++-64"
  stand_in g++ <<<'[[ " $* " != *" -m32 "* ]] && exec g++-64 "$@"'
  expect 0 'no 32-bit toolchain here (Debian: g++-multilib): going on with the native build.' "$checkout/tools/run-post"
  expect 0 "in $dir/elsewhere:" "$checkout/tools/run-post"
}

place_with_blanks() {
  toolchain
  expect 0 "in $dir/elsewhere: <--state> <a b> <--> <-s>" "$checkout/tools/run-post" --state 'a b' -- -s
  expect 0 "in $dir/elsewhere: <--read> <a b>" "$checkout/tools/run-campaign" --read 'a b'
  ln -s "$checkout/tools/run-post" "$dir/elsewhere/link"
  expect 0 'in ' "$dir/elsewhere/link"
  [ "$(grep -c -- --preset "$dir/calls")" = 1 ]  # configured once
  mv "$checkout" "$dir/moved"
  expect 0 'in ' "$dir/moved/tools/run-post"
  grep -qF "cmake -S $dir/moved --preset board --fresh -DPOST_GOOGLETEST_SOURCES=" "$dir/calls"
}

unchecked_sources() {
  stand_in clang-format <<<'echo version 14.0.6'
  expect 1 'nothing was checked' "$checkout/tools/check-style"
  stand_in git <<<'echo "fatal: detected dubious ownership" >&2; exit 128'
  expect 1 'dubious ownership' "$checkout/tools/check-style"
  stand_in git </dev/null
  expect 1 'nothing was checked' "$checkout/tools/check-style"
}

failing_tests() {
  toolchain
  stand_in ctest <<'END'
cat <<'LOG'
    Start 1: good.one
1/3 Test #1: good.one ....   Passed    0.01 sec
chatter of a good test
    Start 2: bad.one
2/3 Test #2: bad.one .....***Failed    0.01 sec
words of the bad test
    Start 3: left.out
3/3 Test #3: left.out .....***Skipped   0.01 sec
chatter of a test that did not run
67% tests passed, 1 tests failed out of 3

The following tests did not run:
	  3 - left.out (Skipped)
LOG
exit 8
END
  expect 1 'words of the bad test' "$checkout/tools/run-tests" host
  never said chatter
  [ "$(tail -n 1 "$dir/said")" = '1 passed, 1 failed, 1 skipped' ]
}

mutants() {
  cat >"$dir/source" <<'END'
#if A == 1
static_assert(a == 1);
// a == 1
const std::vector<int> *p = f("a == 1", '"', x1);  /* b < 2
*/ if (!a && b >= 0x1Fu) return i++ - 9;
END
  awk -f "$tools/mutants.awk" "$dir/source" >"$dir/list"
  diff - "$dir/list" <<'END'
5 8 1 
5 11 2 ||
5 16 2 >
5 19 5 0x1eu
5 34 2 --
5 37 1 +
5 39 1 8
END
}

"$1"

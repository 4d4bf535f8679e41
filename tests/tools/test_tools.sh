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
for command in bash sh env cat cut dirname readlink mkdir mktemp rm sed awk grep uname id tee nproc printf sort head ls \
  sleep; do
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

# What a build needs, without building: cmake makes programs that print where they run and with what. Those of the lab
# are among them where the file $dir/json is; ninja knows the targets.
toolchain() {
  : >"$dir/json"
  stand_in g++ <<END
while [ \$# != 0 ]; do
  [ "\$1" != -o ] || { echo "#!/bin/sh" >"\$2" && chmod +x "\$2"; }
  [ "\$1" != -E ] || { read -r wanted && [[ \$wanted != *nlohmann* || -e "$dir/json" ]] || exit 1; }
  shift
done
END
  stand_in ninja <<<'[ "$3" != -t ] || grep -qx "$5" "$2/targets"'
  ln -s "$(type -P chmod)" "$dir/bin/chmod"
  stand_in cmake <<END
[ "\$1" = -S ] || exit 0
build=\$2/build/\$4
mkdir -p "\$build/bin"
echo "CMAKE_HOME_DIRECTORY:INTERNAL=\$2" >"\$build/CMakeCache.txt"
: >"\$build/build.ninja"
programs='board-sim post'
[ ! -e "$dir/json" ] || programs+=' post-campaign post-results sprom'
for name in programs \$programs; do echo \$name; done >"\$build/targets"
for name in \$programs; do
  printf '#!/bin/bash\necho "\${0##*/} in \$PWD:\$(printf " <%%s>" "\$@")"\n' >"\$build/bin/\$name"
  chmod +x "\$build/bin/\$name"
done
END
  stand_in ctest </dev/null
  mkdir -p "$dir/googletest"
  : >"$dir/googletest/CMakeLists.txt"
  export GOOGLETEST_SOURCES="$dir/googletest"
}

arguments() {
  local tool count=0
  for tool in "$tools"/*; do
    [ -f "$tool" ] && [ -x "$tool" ] || continue
    tool=${tool##*/} count=$((count + 1))
    expect 0 "Usage: tools/$tool" "$checkout/tools/$tool" --help
    awk -v tool="$tool" 'length > 120 { print tool ": too long: " $0; bad = 1 } END { exit bad }' "$dir/said"
    case $tool in run-post | run-campaign) continue ;; esac # which have their program's options
    expect 2 "Try 'tools/$tool --help'." "$checkout/tools/$tool" --no-such-option
  done
  [ $count -ge 13 ]
  expect 0 'Usage: .ci/run' "$tools/../.ci/run" --help
  expect 2 "Try '.ci/run --help'." "$tools/../.ci/run" --no-such-option
  expect 0 'Usage: tools/run-post' "$checkout/tools/run-post" --card 1 --help
  expect 2 'no such preset or option: windows' "$checkout/tools/run-tests" host windows
  expect 2 'which program?' "$checkout/tools/run"
  [ ! -s "$dir/calls" ]
}

machine_that_cannot() {
  expect 1 'Type, as root: apt-get install g++ cmake ninja-build (' "$checkout/tools/run-post"
  expect 1 'for the 32-bit product, also: apt-get install g++-multilib' "$checkout/tools/run-post"
  for tool in run-campaign tour; do
    expect 1 'apt-get install g++ cmake ninja-build nlohmann-json3-dev libcli11-dev (' "$checkout/tools/$tool"
  done
  expect 77 'nothing is checked' "$checkout/tools/check-packages"
  TMPDIR=$dir/none expect 1 "TMPDIR=$dir/none is no folder that can be written" "$checkout/tools/run-post"
  # A signal to what tries whether the compiler works.
  stand_in g++ <<<'[[ " $* " != *" -o "* ]] || { kill "$PPID"; sleep 0.2; }'
  mkdir "$dir/tmp"
  TMPDIR=$dir/tmp expect 1 'something is missing' "$checkout/tools/run-post"
  [ -z "$(ls "$dir/tmp")" ]
  rm "$dir/bin/g++"
  stand_in uname <<<'echo Linux aarch64'
  expect 1 'POST runs on x86 Linux only; this is Linux aarch64.' "$checkout/tools/run-post"
}

package_manager_fails() {
  stand_in id <<<'echo 0'
  stand_in apt-get <<<'echo "E: words of its own"; exit 100'
  expect 1 'E: words of its own' "$checkout/tools/run-post"
  expect 1 'Type, as root: apt-get install g++' "$checkout/tools/run-post"
  grep -q '^apt-get update' "$dir/calls"
  grep -q '^apt-get .* install -y --no-remove ' "$dir/calls" # nobody's package goes for one of ours
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
  expect 0 '32-bit programs cannot be built and run here (Debian: g++-multilib): going on with the native build.' \
    "$checkout/tools/run-post"
  expect 0 "in $dir/elsewhere:" "$checkout/tools/run-post"
}

place_with_blanks() {
  toolchain
  for dashes in -- ''; do
    expect 0 "in $dir/elsewhere: <--state> <a b> <--> <-s>" "$checkout/tools/run-post" --state 'a b' $dashes -s
  done
  expect 0 "in $dir/elsewhere: <--read> <a b>" "$checkout/tools/run-campaign" --read 'a b'
  ln -s "$checkout/tools/run-post" "$dir/elsewhere/link"
  expect 0 'in ' "$dir/elsewhere/link"
  [ "$(grep -c -- --preset "$dir/calls")" = 1 ]  # configured once
  mv "$checkout" "$dir/moved"
  expect 0 'in ' "$dir/moved/tools/run-post"
  grep -qF "cmake -S $dir/moved --preset board --fresh -DPOST_GOOGLETEST_SOURCES=" "$dir/calls"
}

any_program() {
  toolchain
  expect 0 "board-sim in $dir/elsewhere: <--> <$checkout/build/board/bin/sprom> <dump> <a b>" \
    "$checkout/tools/run" sprom dump 'a b'
  expect 0 "board-sim in $dir/elsewhere: <--> <$checkout/build/board/bin/post> <-s>" "$checkout/tools/run" post -s
  expect 0 "post-results in $dir/elsewhere: <--help>" "$checkout/tools/run" post-results --help
  [ "$(grep -c -- --preset "$dir/calls")" = 1 ]
  for name in no-such ../post ''; do expect 2 "Try 'tools/run --help'." "$checkout/tools/run" "$name"; done
  # The build that is there is the one that counts.
  mv "$checkout/build/board" "$checkout/build/host"
  expect 0 "<$checkout/build/host/bin/sprom>" "$checkout/tools/run" sprom list
}

# The headers come after the first build: by hand, or by a command that installs them.
headers_come_later() {
  toolchain
  rm "$dir/json"
  stand_in id <<<'echo 1000'
  expect 0 'nlohmann-json3-dev libcli11-dev): sprom and the lab programs are left out.' "$checkout/tools/run-post"
  expect 1 'Type, as root: apt-get install nlohmann-json3-dev libcli11-dev' "$checkout/tools/run-campaign"
  expect 1 'post-results is not built. For sprom, post-locate and the lab programs type, as root: apt-get install nlohmann' \
    "$checkout/tools/run" post-results
  expect 1 'post-locate is not built.' "$checkout/tools/run" board-sim --card 11096 -- post-locate pci
  : >"$dir/json"
  expect 0 'post-results in ' "$checkout/tools/run" post-results
  rm -r "$dir/json" "$checkout/build"
  expect 0 'board-sim in ' "$checkout/tools/run-post"
  stand_in id <<<'echo 0'
  stand_in apt-get <<<"[[ \$* != *install*nlohmann* ]] || : >'$dir/json'"
  expect 0 'post-campaign in ' "$checkout/tools/run-campaign"
  # A thing that came changes what is built, whether or not all targets were known before.
  mv "$dir/bin/ninja" "$dir/ninja"
  ln -s "$(type -P mv)" "$dir/bin/mv"
  stand_in apt-get <<<"[[ \$* != *install*ninja* ]] || mv '$dir/ninja' '$dir/bin/'"
  expect 0 'board: configure' "$checkout/tools/run-post"
}

# What a log shows of a step: its name before it runs, how far it is, how long it took.
steps_are_followed() {
  toolchain
  ln -s "$(type -P cp)" "$dir/bin/cp"
  stand_in ctest <<END
cp "$dir/said" "$dir/said.before"
printf '1/2 Test #1: a\n2/2 Te'
sleep 2.5
printf 'st #2: b\n100%% tests passed, 0 tests failed out of 2\n'
END
  export progress_seconds=1
  expect 0 'host: test: 1/2, ' "$checkout/tools/run-tests" host
  grep -qx 'host: test' "$dir/said.before"
  grep -qE '^host: test: 1/2, [0-9]+ s so far$' "$dir/said"
  grep -qE '^host: test \([0-9]+ s\)$' "$dir/said"
  stand_in ctest <<<'exit 1'
  expect 1 'host: test (' "$checkout/tools/run-tests" host
  grep -qE '^host: test \([0-9]+ s, failed\)$' "$dir/said"
}

# An interruption ends the command, also if what runs takes it for its own and goes on.
interrupted() {
  [ -z "$(trap -p INT)" ] || return 0 # ignored here
  toolchain
  stand_in ctest <<<'kill -INT $PPID; sleep 0.2; echo "100% tests passed, 0 tests failed out of 2"'
  expect 130 'host: test' "$checkout/tools/run-tests" host
  never said passed
}

# A message that cannot be written changes neither the end of a command nor its status.
nobody_listens() {
  local err deaf
  toolchain
  stand_in ctest <<<'sleep 1.5; echo "100% tests passed, 0 tests failed out of 2"'
  export progress_seconds=1
  for err in /dev/full '&-'; do
    deaf="\"\$0\" \"\$@\" 2>$err; echo ended: \$?"
    expect 0 'ended: 0' bash -c "$deaf" "$checkout/tools/run-post"
    expect 0 'ended: 2' bash -c "$deaf" "$checkout/tools/run-tests" windows
    expect 0 '2 passed, 0 failed' bash -c "$deaf" "$checkout/tools/run-tests" host
    rm -r "$checkout/build"
  done
}

other_versions() {
  local program
  toolchain
  stand_in git <<<'echo a.cpp'
  stand_in xargs </dev/null
  for program in format tidy; do
    stand_in clang-$program <<<"echo 'Debian clang-$program version 19.1.7 (1)'"
    expect 1 "clang-$program is version 19.1.7 here; version 14 is wanted." "$checkout/tools/check-style" --tidy
    grep -qF "apt-get install clang-$program-14" "$dir/said"
    stand_in clang-$program <<<'echo version 14.0.6'
  done
}

# Findings are shown, what was clean is not looked at again, and no source is left out in silence.
tidy() {
  local command
  toolchain
  for command in xargs sha256sum; do ln -s "$(type -P $command)" "$dir/bin/$command"; done
  stand_in clang-format <<<'echo version 14.0.6'
  stand_in clang-tidy <<<'[ "$1" != --version ] || echo version 14.0.6; ! { [[ $* = *b.cpp ]] && grep bad room/b.cpp; }'
  stand_in git <<<'[ "$2" = -z ] || printf "%s\n" a.cpp room/b.cpp c.cpp'
  mkdir -p "$checkout/build/tidy" "$checkout/room"
  echo clean | tee "$checkout/a.cpp" >"$checkout/.clang-tidy"
  echo 'bad words' >"$checkout/room/b.cpp"
  printf ' "file": "%s"\n' "$checkout/a.cpp" "$checkout/room/b.cpp" "$checkout/build/made.cpp" /usr/src/x.cpp \
    >"$checkout/build/tidy/compile_commands.json"
  expect 1 'bad words' "$checkout/tools/check-style" --tidy
  grep -qx "Left out, because what they need is not here: c.cpp" "$dir/said"
  grep -qx 'check-style: clang-tidy found something' "$dir/said"
  expect 2 'no such folder in the sources: rum' "$checkout/tools/check-style" --tidy rum
  echo fine >"$checkout/room/b.cpp"
  expect 0 '1 compiled sources are clean' "$checkout/tools/check-style" --tidy room/
  expect 0 '2 compiled sources are clean' "$checkout/tools/check-style" --tidy
  [ "$(grep -c 'clang-tidy.* a.cpp' "$dir/calls")" = 1 ]
  [ "$(grep -c 'clang-tidy.* room/b.cpp' "$dir/calls")" = 2 ]
}

# A page names a kernel's version, not the build of one machine.
pages_name_no_machine() {
  ! grep -rnE 'Linux [0-9]+\.[0-9]+[-.][0-9a-z]' "$tools/../docs" --include='*.md' --include='*.json'
}

# The programs take theirs from CMakeLists.txt.
versions_agree() {
  local cmake root=$tools/..
  cmake=$(sed -n 's/^project(post VERSION \([0-9.]*\) .*/\1/p' "$root/CMakeLists.txt")
  [ "$(sed -n 's/^## \([0-9.]*\) (20..-..-..)$/\1/p' "$root/CHANGELOG.md" | head -n 1)" = "$cmake" ]
  [[ $(head -n 1 "$root/debian/changelog") =~ ^post\ \("$cmake"(\+[0-9]+)?\)\  ]]
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

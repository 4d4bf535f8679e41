# test_readme.sh BIN LIB [docs]: the commands that README.md shows, in its order, with the programs of a build. The output
# that it shows is what they print. With "docs", the commands of the pages in docs/ and of the help of tools/ instead. Git
# ignores the files that they make.
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
dir=$(mktemp -d)
trap 'rm -r -- "$dir"' EXIT
checkout="$dir/a clone"

# A clone that is built, on a machine without a 32-bit compiler and a package manager that works.
mkdir -p "$checkout/build/host" "$dir/bin"
cp -r "$root/tools" "$root/README.md" "$root/docs" "$checkout"
ln -s "$1" "$checkout/build/host/bin"
ln -s "$2" "$checkout/build/host/lib"
echo "CMAKE_HOME_DIRECTORY:INTERNAL=$checkout" >"$checkout/build/host/CMakeCache.txt"
: >"$checkout/build/host/build.ninja"
stand_in() { cat - >"$dir/bin/$1" && chmod +x "$dir/bin/$1"; }
for command in cmake ninja; do stand_in "$command" <<<'#!/bin/sh'; done
for command in apt-get sudo; do printf '#!/bin/sh\nexit 100\n' | stand_in "$command"; done
printf '#!/bin/bash\n[[ " $* " != *" -m32 "* ]] && exec %q "$@"\n' "$(type -P g++)" | stand_in g++
export PATH="$dir/bin:$PATH"

# of_page PAGE: each command as "$ COMMAND" in one line, each line of output as "> LINE".
of_page() {
  awk '/^```/ { on = !on; shell = $0 == "```sh"; next }
       !on { next }
       shell && NF { line = $0; while (sub(/\\$/, "", line)) { getline more; line = line more }; print "$ " line; next }
       /^\$ / { print $0; next }
       { print "> " $0 }' "$1"
}

# What differs from run to run, between word sizes, and with the descriptors that a caller left open.
steady() {
  sed -E -e 's/^devmemfd:0x[0-9a-f]+/devmemfd:N/' -e 's/-->0x[0-9a-f]+/-->ADDRESS/' \
    -e 's/\([0-9]+ seconds?\)/(N seconds)/'
}

cd "$checkout"
# Commands that are not run. Each must be on some page.
pages=(README.md) left_out=('git clone *') least=12
if [ "${3-}" = docs ]; then
  pages=(docs/*.md) least=24
  left_out=('cmake *' 'apt-get *' 'dpkg-buildpackage*' 'tools/check-packages*' # they build or install
    'docker*' 'sbatch*' 'docs/cluster/parallel.sh*' '*parts/*'                 # systems that may not be here
    '*build/board*' '*build/host/bin/post core*')                             # a 32-bit build, a core file
fi

count=0
declare -A seen=()
run() { # run PAGE COMMAND: a campaign and an audit are shortened
  local command=$2 status=0 pattern
  : >"$dir/out"
  for pattern in "${left_out[@]}"; do
    # shellcheck disable=SC2053 # a pattern
    [[ $command != $pattern ]] || { seen[$pattern]=1 && return; }
  done
  count=$((count + 1))
  case $command in
    *gdb* | *tools/debug*) type -P gdb >/dev/null || return 0 ;;
    *strace*) type -P strace >/dev/null || return 0 ;;
    *tools/run-campaign*) command=${command/tools\/run-campaign/tools/run-campaign --healthy 1 --mode short} ;;
    'post-campaign --shard'*) command="build/host/bin/${command/--shard/--healthy 2 --mode short --shard}" ;;
    post-campaign*) command=build/host/bin/$command ;;
    # On a bench.
    sprom*) command="build/host/bin/board-sim --family pellin --state fixture -- $command" ;;
    *--cut-audit*) command=${command/audit.txt/audit.txt -- -s} ;;
  esac
  echo "$ $command"
  bash -c "$command" >"$dir/out" 2>"$dir/err" </dev/null || status=$?
  # A fault that is found ends its run with 1, a power cut or an assertion by a signal.
  case $2 in *power-cut*) [ $status != 137 ] || status=1 ;; *bar-missing*) [ $status != 134 ] || status=1 ;; esac
  if [ $status -gt 1 ] || { [ $status = 1 ] && [[ $2 != *fault* && $2 != *post-explain* ]]; }; then
    echo "$1: $2: status $status"
    cat "$dir/err"
    exit 1
  fi
}
check_shown() { [ ! -s "$dir/shown" ] || diff <(steady <"$dir/shown") <(steady <"$dir/out"); }
try() { # try PAGE
  : >"$dir/shown"
  while IFS= read -r line; do
    case $line in
      '$ '*)
        check_shown
        : >"$dir/shown"
        run "$1" "${line#'$ '}"
        ;;
      *) [ "$1" != README.md ] || printf '%s\n' "${line#'> '}" >>"$dir/shown" ;;
    esac
  done < <(of_page "$1")
  check_shown
}
for page in "${pages[@]}"; do try "$page"; done
if [ "${3-}" = docs ]; then
  for tool in $(grep -ls '^usage=' tools/*); do
    while IFS= read -r line; do run "$tool --help" "$line"; done < <("$tool" --help 2>/dev/null |
      awk '/^  ([A-Z]+=".*" )?tools\// { sub(/^ +/, ""); sub(/  +[^ ].*/, ""); print }')
  done
fi
for pattern in "${left_out[@]}"; do
  [ -n "${seen[$pattern]-}" ] || { echo "no page shows: $pattern" && exit 1; }
done
[ $count -ge $least ] || { echo "only $count commands found" && exit 1; }

for name in *; do
  case $name in tools | docs | build | README.md) continue ;; esac
  grep -qxE "/$name/?" "$root/.gitignore" || { echo "git does not ignore $name" && exit 1; }
done

# test_examples.sh BIN: every command that a manual or a --help shows as an example, in the order of its page, with the
# programs of a build. Those that need the board run on one simulated board.
set -eu
root=$(cd "$(dirname "$0")/../.." && pwd)
dir=$(mktemp -d)
trap 'rm -r -- "$dir"' EXIT
mkdir "$dir/bin" "$dir/here"
stand_in() { cat - >"$dir/bin/$1" && chmod +x "$dir/bin/$1"; }
for program in post post-locate sprom post-results post-explain; do
  printf '#!/bin/sh\nexec %q --waits short --state %q -- %q "$@"\n' "$1/board-sim" "$dir/board" "$1/$program" |
    stand_in $program
done
printf '#!/bin/sh\nexec %q --waits short "$@"\n' "$1/board-sim" | stand_in board-sim
# Hours of runs are only listed: patterns, options and files are read all the same.
stand_in post-campaign <<E2
#!/bin/sh
case " \$* " in *" --read "* | *" --list "*) ;; *) set -- "\$@" --list ;; esac
exec $(printf %q "$1/post-campaign") "\$@"
E2
# Of the system that starts it, only units.
mkdir -p "$dir/etc/systemd/system" "$dir/metrics"
cp "$root/post/boot/post-boot.service" "$dir/etc/systemd/system"
echo '[Unit]' >"$dir/etc/systemd/system/boot-complete.target"
printf '#!/bin/sh\nexec %q --root=%q "$@"\n' "$(type -P systemctl)" "$dir" | stand_in systemctl
printf '#!/bin/sh\nexec %q --state %q -- %q "$@"\n' "$1/board-sim" "$dir/board" "$root/post/boot/post-boot" |
  stand_in post-boot
export LOGS_DIRECTORY="$dir/logs" STATE_DIRECTORY="$dir/state" RUNTIME_DIRECTORY="$dir/run" METRICS="$dir/metrics/prom"
export PATH="$dir/bin:$PATH"

# What pages take as given.
cd "$dir/here"
cp "$root/docs/campaign-standard.json" former.json
cp former.json now.json
post -s >post.log
for run in 1 2; do post -s >/dev/null; done
cp "$dir/board/post/result" result
sprom show --json SUPERVISOR >sprom.json

# of_manual FILE: ".Dl COMMAND", and the "$ COMMAND" lines of literal blocks, which may go on after "\e", or "# COMMAND".
of_manual() {
  sed -e 's/\\(dq/"/g' -e 's/\\&//g' "$1" |
    awk '/^\.Dl / { sub(/^\.Dl /, ""); print }
         /^[$#] / { line = substr($0, 3); while (sub(/\\e$/, "", line)) { getline more; line = line more }; print line }'
}
# of_help PROGRAM: the lines of "Examples:"; what they are for follows after two blanks.
of_help() { "$1" --help | awk '/^Examples:/ { on = 1; next } /^$/ { on = 0 } on { sub(/^ +/, ""); sub(/   .*/, ""); print }'; }

count=0
try() { # try PAGE: the commands on standard input
  local line status
  while IFS= read -r line; do
    case $line in
      *sigrok-cli* | *--bus=* | *--merge* | '') continue ;; # no fixture here, and no parts of a campaign
      *'| jq'*) command -v jq >/dev/null || continue ;;
      systemctl* | journalctl*) command -v journalctl >/dev/null || continue ;;
    esac
    line=${line//\/var\/lib\/prometheus\/node-exporter/.}
    status=0
    bash -c "$line" >"$dir/out" 2>"$dir/err" </dev/null || status=$?
    count=$((count + 1))
    [[ $line != *power-cut* || $status != 137 ]] || status=1
    [ $status -le 1 ] && continue
    echo "$1: $line: status $status"
    cat "$dir/err"
    exit 1
  done
}
for page in board-sim sprom post post-locate post-results post-explain post-campaign; do
  try "docs/$page.1" < <(of_manual "$root/docs/$page.1")
  [ $page = post ] || try "$page --help" < <(of_help "$1/$page")
done
try docs/post-boot.8 < <(of_manual "$root/docs/post-boot.8")
[ -e "$STATE_DIRECTORY/full-next" ] && [ -e "$LOGS_DIRECTORY/last/output" ] || { echo 'post-boot did nothing' && exit 1; }
[ $count -ge 64 ] || { echo "only $count examples found" && exit 1; }

# test_pictures.sh BIN: the pictures in docs/ are what tools/pictures draws, except the one that depends on the machine.
set -eu
command -v python3 >/dev/null || exit 77
root=$(cd "$(dirname "$0")/../.." && pwd)
dir=$(mktemp -d)
trap 'rm -r -- "$dir"' EXIT
pictures=(board looked-at i2c-read flash-erase)
PYTHONDONTWRITEBYTECODE=1 python3 "$root/tools/draw/pictures.py" "$1" "$dir" "${pictures[@]}"
for name in "${pictures[@]}"; do diff "$root/docs/$name.svg" "$dir/$name.svg"; done

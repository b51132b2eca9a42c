#!/bin/sh
# The default build and the guarded one answer clients that keep the rules alike, byte for byte.
#   check_play.sh RUNS DEFAULT GUARDED     the two guard-play programs
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
[ -x "$2" ] || { echo "$2 is missing: cmake --build --preset x86 makes it"; exit 1; }
"$2" 1 "$1" >"$work/default" &
"$3" 1 "$1" >"$work/guarded"
wait
grep -q '^malloc' "$work/default" || { echo "nothing was played"; exit 1; }
diff "$work/default" "$work/guarded" >"$work/difference" || {
    echo "the builds answer differently:"
    head -n 20 "$work/difference"
    exit 1
}

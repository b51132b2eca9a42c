#!/bin/sh
# The application guide's examples as a reader runs them, on one controller.
#   check.sh CONTROLLER FOLDER-OF-PROGRAMS
set -eu
controller=$1 folder=$2
work=$(mktemp -d)
"$controller" --socket "$work/mm.sock" &
process=$!
trap 'kill "$process" 2>/dev/null; rm -rf "$work"' EXIT
export VELMORA_MM_DEVICE="unix:$work/mm.sock"
for _ in $(seq 100); do
    [ -S "$work/mm.sock" ] && break
    sleep 0.05
done

failures=0
# expect TEXT STATUS PROGRAM: what the program prints, and its exit status.
expect() {
    status=0
    printed=$("$folder/$3" 2>&1) || status=$?
    if [ "$printed" != "$1" ] || [ "$status" -ne "$2" ]; then
        printf '%s: exit status %s, and printed:\n%s\ninstead of %s and:\n%s\n' "$3" "$status" "$printed" "$2" "$1"
        failures=$((failures + 1))
    fi
}

# 9DF00000 less the fixed segments, up to 95312000, and 258 blocks of the page segment.
expect 'the heap has 145670144 bytes' 0 start_up
expect 'start_up: startUp: the library has segments already, and a start would take them from everybody' 1 start_up
# Bands 0 to 3 in the segment, 4 and 5 in the heap: 262144 times (0 + 1 + 2 + 3 + 4 + 5).
pages='printed: 3932160
owner 0x17 has 64 blocks'
expect "$pages" 0 pages
expect "$pages" 0 velmora_guide_pages_shared
# shellcheck disable=SC2016
expect '$JCB  0     64 of    64 blocks of 1024 bytes are free, 64 in a row
     owners: nothing that a process can read tells
PAGE  5    257 of   257 blocks of 4096 bytes are free, 257 in a row' 0 usage
c='owner 15 has 16 blocks'
expect "$c" 0 pages-c
expect "$c" 0 velmora_guide_c_shared
exit "$failures"

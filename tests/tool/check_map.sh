#!/bin/sh
# "velmora-mm map" and "velmora-mm watch --once" on a controller, and what they refuse.
#   check_map.sh VELMORA-MM CONTROLLER SOME-WORK
set -eu
tool=$1
controller=$2
some_work=$3
work=$(mktemp -d)
process=
trap '[ -z "$process" ] || kill "$process"; rm -rf "$work"' EXIT
# shellcheck source=tests/support/program.sh
. "$(dirname "$0")/../support/program.sh"

says_alone() { # one line on the errors, which ends so, and nothing else
    [ "$(wc -l <"$work/errors")" -eq "${2:-1}" ] || fail "not one line"
    grep -q -- "$1" "$work/errors" || fail "missing among the errors: $1"
    [ ! -s "$work/out" ] || fail "there is output besides the error"
}

export LC_ALL=C VELMORA_MM_DEVICE="unix:$work/mm.sock"
unset NO_COLOR
ends 3 "$tool" map
says_alone '^velmora-mm map: no controller is running: there is no socket'
for words in '--width 19' '--width 1001' '--rows 0' '--rows many' '--color sometimes' '--area 95000000'; do
    # shellcheck disable=SC2086
    ends 2 "$tool" map $words
    says_alone '^velmora-mm map: ' 2 # and where help is
done
ends 2 "$tool" watch --interval 0
says_alone '^velmora-mm watch: ' 2

"$controller" --socket "$work/mm.sock" >"$work/controller.log" &
process=$!
tries=0
until [ -S "$work/mm.sock" ]; do
    tries=$((tries + 1))
    [ "$tries" -lt 200 ] || fail "the controller does not start"
    sleep 0.05
done

ends 2 "$tool" map --html "$work/none" --json
ends 0 "$tool" map
prints '^0x95100000 |??*|$'
ends 0 "$tool" watch --once
prints '^There are no segments'

"$some_work" start
# Whole. Of 257 blocks the highest 128 are owner 3's.
cat >"$work/expected" <<END
 a character is 2.5 MiB
0x95100000 |**???????????????????????????????????????????????????????|
0x95100000  \$MCT     4 KiB  kept for a fixed segment that nobody created
0x95101000  \$RJL     4 KiB  kept for a fixed segment that nobody created
0x95102000  \$JCB    64 KiB  kept for a fixed segment that nobody created
0x95112000  \$UEV     1 MiB  kept for a fixed segment that nobody created
0x95212000  \$FIL     1 MiB  kept for a fixed segment that nobody created
0x95312000  PAGE  1.01 MiB  segment 5
0x95414000         139 MiB  no segment's

PAGE, segment 5: 1 MiB in 257 blocks of 4 KiB
 129 free (516 KiB) in one run
 a character is 2 blocks, 8 KiB
0x95313000 |................................................................|
0x95393000 |aAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA|
0x95413000 |A|

A owner 3    512 KiB

. free
a small letter: partly that owner's
END
ends 0 "$tool" map
tail -n +2 "$work/out" | cmp -s "$work/expected" - || fail "not the expected map"
head -n 1 "$work/out" | grep -q '^unix:.*: 142 MiB from 0x95100000 to 0x9df00000$' || fail "not the expected head"
ends 0 "$tool" map --color always
[ "$(sed 's/\x1b\[[0-9;]*m//g' "$work/out" | tail -n +2 | cmp "$work/expected" -)" = "" ] || fail "colours add more than colours"
grep -q "$(printf '\033')\[30;41maAAA" "$work/out" || fail "no colours"
ends 0 env NO_COLOR=1 "$tool" map --color auto
grep -q "$(printf '\033')" "$work/out" && fail "colours where none were wanted"
ends 0 env LC_ALL=C.UTF-8 "$tool" map
prints '^0x95313000 │····'
ends 0 "$tool" map --area 95000000-95500000
prints ': 3 MiB from 0x95100000 to 0x95400000$'
ends 0 "$tool" map --no-heap
prints '^The heap is not shown: it was not asked for$'
prints "^0x95414000         139 MiB  not shown by any table: the heap's, or nobody's$"

ends 0 "$tool" map --html "$work/map.html"
[ ! -s "$work/out" ] || fail "a page and a picture"
grep -q '"runs":\[\[129,null\],\[128,3\]\]' "$work/map.html" || fail "not the runs in the page"
ends 1 "$tool" map --html "$work/none/map.html"
says_alone '^velmora-mm map: cannot write .*/none/map.html: No such file or directory$'
ends 0 "$tool" map --json
python3 - "$work/out" <<'END' || fail "not the expected listing"
import json, sys
listing = json.load(open(sys.argv[1]))
assert listing["schema"] == "velmora-mm map" and listing["version"] == 1
assert listing["segments"][0]["runs"] == [[129, None], [128, 3]], listing["segments"]
assert listing["stretches"][-1] == {"kind": "unknown", "start": "0x95414000", "end": "0x9df00000"}
END

ends 0 "$tool" watch --once
prints '^PAGE |###############                |  50 %  512 KiB of    1 MiB  peak  512 KiB$'
ends 1 "$tool" watch
says_alone '^velmora-mm watch: standard input and output have to be a terminal; --once prints the same once$'

# Seen as they end: an area of another kind of program, a device that is none, a controller that is gone.
ends 3 "$tool" map --device "$work/out"
kill "$process"
wait "$process" || true
process=
ends 3 "$tool" map
says_alone '^velmora-mm map: no controller is running'

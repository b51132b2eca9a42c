#!/bin/sh
# Recordings as a user makes and uses them: unchanged programs and the print job's three processes, replayed with the same
# answers; a controller that was running before; plans of them; files that are none.
#   check_record.sh VELMORA-MM VELMORA-CONTROLLER PRINT-JOB [PROGRAM]...    PROGRAM: unchanged ones
set -eu
velmora_mm=$1
controller_program=$2
print_job=$3
shift 3
work=$(mktemp -d)
mkdir "$work/tmp"
export TMPDIR="$work/tmp"
controller=
recorder=
# shellcheck disable=SC2086 # there may be none
trap 'kill $recorder $controller 2>/dev/null || :; rm -rf "$work"' EXIT

# shellcheck source=tests/support/program.sh
. "$(dirname "$0")/../support/program.sh"

complains() {
    grep -q -- "$1" "$work/errors" || fail "missing among the errors: $1, but: $(cat "$work/errors")"
}
eventually() {
    for _ in $(seq 200); do
        "$@" && return
        sleep 0.05
    done
    fail "still not so after ten seconds: $*"
}
start_controller() { # OPTION...
    "$controller_program" --socket "$work/mm.sock" "$@" &
    controller=$!
    eventually [ -S "$work/mm.sock" ]
}
start_recorder() { # FILE
    : >"$work/recorder"
    "$velmora_mm" record "$1" --device "unix:$work/mm.sock" --socket "$work/rec.sock" >"$work/recorder" 2>"$work/recorder-errors" &
    recorder=$!
    eventually [ -s "$work/recorder" ]
    [ "$(cat "$work/recorder")" = "unix:$work/rec.sock" ] || fail 'the recorder does not say where it is'
}
end_recorder() { # STATUS
    kill "$recorder" 2>/dev/null || :
    status=0
    wait "$recorder" || status=$?
    recorder=
    [ "$status" -eq "$1" ] || fail "the recorder ended with $status: $(cat "$work/recorder-errors")"
    [ ! -e "$work/rec.sock" ] || fail 'the socket of the recorder is left'
}
end_controller() {
    kill "$controller"
    wait "$controller" || :
    controller=
}
replays() { # FILE
    ends 0 "$velmora_mm" script "$1"
    [ "$(grep -c '^= met$' "$work/out")" -eq "$(grep -c '^expect ' "$1")" ] || fail "$1: other answers"
    [ "$(grep -c '^expect ' "$1")" -gt 5 ] || fail "$1: hardly anything was recorded"
}

# Unchanged programs.
for program in "$@"; do
    for case in answers one-of-each forks threads; do
        ends 0 "$velmora_mm" run --record "$work/$case.txt" -- "$program" "$case"
        replays "$work/$case.txt"
    done
done

# The print job: three processes, and a page that overflows into the heap.
cat >"$work/two.ps" <<'END'
%!PS
/Helvetica findfont 40 scalefont setfont
0.9 0.3 0.1 setrgbcolor 72 500 moveto (first page) show showpage
0 0.5 0.8 setrgbcolor 100 100 400 300 rectfill showpage
END
start_controller
start_recorder "$work/job.txt"
"$print_job" --processes --overflow --device "unix:$work/rec.sock" --document "$work/two.ps" --dpi 300 --copies 2 --output "$work/job" \
    >"$work/out" 2>&1 || fail 'the print job failed behind the recorder'
prints 'of them from the heap'
prints 'All 2 pages of all 2 copies are identical'
end_recorder 0
[ "$(head -n 1 "$work/job.txt")" = '# velmora-mm recording 1' ] || fail 'the recording does not say what it is'
[ "$(tail -n 1 "$work/job.txt")" = '# end of recording' ] || fail 'the recording does not say that it is whole'
[ "$(grep '^# asked by print-job' "$work/job.txt" | sort -u | wc -l)" -ge 2 ] || fail 'not several processes'
grep -q '^malloc segment=PAGE bytes=256K owner=0xf -> [$]a[0-9]*$' "$work/job.txt" || fail 'no band by name'
replays "$work/job.txt"

# On a controller that was started anew, the same answers; on this one, where the addresses may be others, what differs is said.
end_controller
start_controller
ends 0 "$velmora_mm" script --device "unix:$work/mm.sock" "$work/job.txt"
[ "$(grep -c '^= met$' "$work/out")" -eq "$(grep -c '^expect ' "$work/job.txt")" ] || fail 'other answers on a device'

# A controller that has segments and blocks already: they stand first, where they lie, and blocks are released by name.
cat >"$work/before.txt" <<'END'
table
start
create name=BAND type=float kind=list bytes=1M block=4K map=8 lock=yes
create name=STK type=float kind=stack bytes=64K block=4K
malloc segment=BAND bytes=64K owner=1
malloc segment=BAND bytes=8K owner=2 -> $hole
malloc segment=BAND bytes=64K owner=3
free $hole
malloc segment=STK bytes=12K
END
end_controller
start_controller
ends 0 "$velmora_mm" script --device "unix:$work/mm.sock" "$work/before.txt"
start_recorder "$work/late.txt"
cat >"$work/then.txt" <<'END'
malloc segment=BAND bytes=4K owner=4 -> $a
free 0x95402000 segment=BAND bytes=64K
mst segment=BAND
mst segment=STK
END
ends 0 "$velmora_mm" script --device "unix:$work/rec.sock" "$work/then.txt"
end_recorder 0
grep -q '^# The controller was running before' "$work/late.txt" || fail 'the recording does not say that it begins late'
grep -q '^free [$]a1$' "$work/late.txt" || fail 'a block that was there has no name'
replays "$work/late.txt"

# An answer that is another one.
sed 's/^expect = 0x[0-9a-f]*$/expect = 0x12345678/' "$work/late.txt" >"$work/other.txt"
ends 1 "$velmora_mm" script "$work/other.txt"
prints '^! line [0-9]*: expected 0x12345678, got 0x9540'
complains 'expectations were not met$'

# What cannot be recorded or replayed.
ends 3 "$velmora_mm" record "$work/none.txt" --device "unix:$work/none.sock"
complains "velmora-mm record: no controller is running: there is no socket $work/none.sock"
ends 3 "$velmora_mm" record "$work/none.txt" --device /dev/Velmora_MM
complains 'velmora-mm record: cannot open /dev/Velmora_MM: No such file or directory'
[ ! -e "$work/none.txt" ] || fail 'there is a file without a recording'
ends 1 "$velmora_mm" record "$work/none/job.txt" --device "unix:$work/mm.sock"
complains 'velmora-mm record: cannot record into'
ends 1 "$velmora_mm" record "$work/none.txt" --device "unix:$work/mm.sock" --socket "$work/mm.sock"
complains 'velmora-mm record: cannot listen at .*: Address already in use'
[ -S "$work/mm.sock" ] || fail "the controller's socket is gone"
ends 2 "$velmora_mm" record "$work/none.txt" --device "unix:$work/mm.sock" --area 95000000-9e000000
complains 'velmora-mm record: --area: a controller says itself where its area lies'
ends 2 "$velmora_mm" record
complains 'FILE is required'
printf 'peek 0x95400000 4\n' >"$work/peek.txt"
ends 2 "$velmora_mm" script --device "unix:$work/mm.sock" "$work/peek.txt"
prints "^! line 1: 'peek' is for the simulated controller: a device takes lines by name, and ioctl with a whole record"
ends 3 "$velmora_mm" script --device "unix:$work/none.sock" "$work/peek.txt"
complains 'velmora-mm script: no controller is running'
start_recorder "$work/short.txt"
end_controller
wait "$recorder" && fail 'the recorder did not notice that the controller is gone'
recorder=
grep -q '^velmora-mm record: the controller was switched off$' "$work/recorder-errors" || fail 'the recorder does not say why it ended'
[ "$(tail -n 1 "$work/short.txt")" = '# end of recording' ] || fail 'what was recorded is not whole'

# Plans.
ends 0 "$velmora_mm" plan "$work/job.txt" --without-probes
prints '^Nothing was refused[.]$'
prints '^PAGE '
ends 0 "$velmora_mm" plan "$work/job.txt" --without-probes --smallest --html "$work/plan.html"
prints 'layouts tried'
grep -q '<svg' "$work/plan.html" || fail 'there is no picture'
area=$(grep -o '95000000-[0-9a-f]*' "$work/out")
bytes=$(sed -n '/^\[segment.PAGE\]/,/^$/s/^bytes = "\(.*\)"/\1/p' "$work/out")
sed -n '/^area/,$p' "$work/out" >"$work/layout.toml"
ends 0 "$velmora_mm" plan "$work/job.txt" --without-probes --layout "$work/layout.toml"
start_controller --area "$area"
"$print_job" --processes --overflow --device "unix:$work/mm.sock" --page-segment "$bytes" --rasters "$work/job/drawn" --copies 2 \
    --output "$work/small" >"$work/out" 2>&1 || fail 'the smallest layout does not print'
prints 'All 2 pages of all 2 copies are identical'
end_controller
for workers in 1 2 5; do
    ends 0 "$velmora_mm" plan "$work/job.txt" --without-probes --smallest --json --workers "$workers"
    mv "$work/out" "$work/plan-$workers.json"
    cmp "$work/plan-1.json" "$work/plan-$workers.json" || fail "another plan with $workers processes"
done
ends 0 "$velmora_mm" plan "$work/job.txt" --print-layout
prints '^\[segment.PAGE\]$'
ends 0 "$velmora_mm" plan "$work/job.txt" --without-probes --smallest --print-layout
mv "$work/out" "$work/found.toml"
ends 0 "$velmora_mm" plan "$work/job.txt" --without-probes --layout "$work/found.toml"
prints '^Nothing was refused\.$'
printf '[segment.PAGE]\nbytes = "1M"\noverflow = false\n' >"$work/layout.toml"
ends 1 "$velmora_mm" plan "$work/job.txt" --without-probes --layout "$work/layout.toml"
prints '^  line [0-9]*: 256 KiB of PAGE, asked by print-job \['
printf 'nonsense = 1\n' >"$work/layout.toml"
ends 2 "$velmora_mm" plan "$work/job.txt" --layout "$work/layout.toml"
complains "line 1: unknown key 'nonsense'"
head -n 20 "$work/job.txt" >"$work/cut.txt"
ends 1 "$velmora_mm" plan "$work/cut.txt"
complains 'cut.txt ends in the middle'
ends 1 "$velmora_mm" script "$work/cut.txt"
prints '^! line 21: the recording ends here, in the middle'
ends 1 "$velmora_mm" plan "$work/two.ps"
complains 'two.ps is no recording'
ends 1 "$velmora_mm" plan "$work/nothing.txt"
complains 'cannot read .*nothing.txt: No such file or directory'
ends 1 "$velmora_mm" plan "$work/job.txt" --html "$work/none/plan.html"
complains 'cannot write'
ends 2 "$velmora_mm" plan
complains 'RECORDING is required'
[ -z "$(ls "$work/tmp")" ] || fail 'folders are left'

#!/bin/sh
# velmora-mm run as a user meets it: controllers, exit statuses, signals, several programs, records.
#   check.sh VELMORA-MM VELMORA-CONTROLLER PROGRAM-32 PROGRAM-64
set -eu
velmora_mm=$1
controller_program=$2
program_32=$3
program_64=$4
work=$(mktemp -d)
mkdir "$work/temporary"
export TMPDIR="$work/temporary" # where private controllers have their folders
controller=
trap '[ -z "$controller" ] || kill -9 "$controller" 2>/dev/null || :; rm -rf "$work"' EXIT

# shellcheck source=tests/support/program.sh
. "$(dirname "$0")/../support/program.sh"

complains() {
    grep -q -- "$1" "$work/errors" || fail "missing among the errors: $1"
    [ "$(wc -l <"$work/errors")" -eq "${2:-1}" ] || fail "not one sentence about: $1"
}
eventually() {
    for _ in $(seq 200); do
        "$@" && return
        sleep 0.05
    done
    fail "still not so after ten seconds: $*"
}
start_controller() { # SOCKET OPTION...
    socket=$1
    shift
    "$controller_program" --socket "$socket" "$@" 2>"$work/controller" &
    controller=$!
    eventually [ -S "$socket" ]
}
end_controller() {
    kill "$controller"
    wait "$controller" || :
    controller=
}

# Exit statuses are the program's.
ends 0 "$velmora_mm" run -- true
ends 0 "$velmora_mm" run true
ends 7 "$velmora_mm" run -- sh -c 'exit 7'
ends 3 "$velmora_mm" run sh -c 'exit 3' --record
# shellcheck disable=SC2016 # the shell's own number
ends 137 "$velmora_mm" run -- sh -c 'kill -KILL $$'
ends 139 "$velmora_mm" run -- sh -c 'ulimit -c 0; kill -SEGV $$'
ends 127 "$velmora_mm" run -- "$work/nothing"
complains "velmora-mm run: cannot run '$work/nothing': No such file or directory"
ends 127 "$velmora_mm" run -- no-such-program-anywhere
: >"$work/text"
ends 126 "$velmora_mm" run -- "$work/text"
complains "cannot run '$work/text': Permission denied"
ends 126 "$velmora_mm" run -- "$work"
ends 2 "$velmora_mm" run
complains 'velmora-mm run: PROGRAM is required' 2
ends 2 "$velmora_mm" run --
ends 2 "$velmora_mm" run --nonsense -- true
complains 'velmora-mm run: unknown option --nonsense' 2
ends 2 "$velmora_mm" run --record
complains 'velmora-mm run: --record lacks its value' 2

# Words and streams go through as they are.
ends 0 "$velmora_mm" run -- printf '<%s>' 'two words' '' '--' '[a,b]' '--help'
[ "$(cat "$work/out")" = '<two words><><--><[a,b]><--help>' ] || fail 'the words changed'
[ "$(echo through | "$velmora_mm" run -- cat)" = through ] || fail 'the input did not arrive'
[ ! -s "$work/errors" ] || fail 'something was printed'

# Programs that nobody thought of.
ends 0 "$velmora_mm" run -- ls -l /dev/Velmora_MM
grep -q '^crw-rw---- .*254, *0 .*/dev/Velmora_MM$' "$work/out" || fail 'not a character device'
[ ! -s "$work/errors" ] || fail 'ls complains'
ends 0 "$velmora_mm" run -- test -c /dev/Velmora_MM -a -r /dev/Velmora_MM -a ! -x /dev/Velmora_MM
ends 1 "$velmora_mm" run -- cat /dev/Velmora_MM
complains 'cat: /dev/Velmora_MM: Function not implemented'
ends 1 "$velmora_mm" run -- python3 -c 'open("/dev/Velmora_MM", "rb").read(1)'
complains 'OSError: \[Errno 38\] Function not implemented' 3

# Libraries that others preload stay, behind this one.
# shellcheck disable=SC2016 # the loader's own name
other="$(dirname "$velmora_mm")/../preload/./\$LIB/libvelmora-mm-preload.so"
# shellcheck disable=SC2016
LD_PRELOAD=$other ends 0 "$velmora_mm" run -- sh -c 'echo "$LD_PRELOAD"; ls -l /dev/Velmora_MM'
# shellcheck disable=SC2016
grep -q '/libvelmora-mm-preload.so:.*/preload/./\$LIB/libvelmora-mm-preload.so$' "$work/out" || fail 'the other is gone'
grep -q '^crw-rw' "$work/out" || fail 'two libraries are one too many'

# Signals that are sent to it are the program's; the controller goes with it.
# shellcheck disable=SC2016
"$velmora_mm" run -- sh -c 'trap "exit 9" TERM; echo "$VELMORA_MM_DEVICE"; while :; do sleep 0.05; done' >"$work/device" &
run=$!
eventually [ -s "$work/device" ]
kill "$run"
status=0
wait "$run" || status=$?
[ "$status" -eq 9 ] || fail "the program was to end with 9, not $status"
socket=$(sed 's/^unix://' "$work/device")
[ ! -e "$socket" ] || fail "the controller's socket $socket is left"
for signal in HUP:129 USR1:138 QUIT:131; do
    "$velmora_mm" run -- env --default-signal=QUIT sleep 30 &
    run=$!
    sleep 0.3
    kill -s "${signal%:*}" "$run"
    status=0
    wait "$run" || status=$?
    [ "$status" -eq "${signal#*:}" ] || fail "SIG$signal: $status"
done

# What the terminal sends to all of the group leaves the controller there for a program that goes on.
# shellcheck disable=SC2016
setsid "$velmora_mm" run -- sh -c 'trap "exec 3<>/dev/Velmora_MM && exit 9" TERM; echo $PPID; while :; do sleep 0.05; done' \
    >"$work/group" &
run=$!
eventually [ -s "$work/group" ]
kill -s TERM -- "-$(cat "$work/group")"
status=0
wait "$run" || status=$?
[ "$status" -eq 9 ] || fail "the controller was gone after a signal to the group: $status"

# Controllers that are not there.
ends 125 "$velmora_mm" run --controller "$work/none.sock" -- true
complains "velmora-mm run: no controller is running: there is no socket $work/none.sock"
ends 125 "$velmora_mm" run --controller "$work/text" -- true
complains "velmora-mm run: $work/text is no socket of a controller"
VELMORA_CONTROLLER=$work/text ends 125 "$velmora_mm" run -- true
complains "VELMORA_CONTROLLER is $work/text, which cannot be run"
VELMORA_CONTROLLER=/bin/true ends 125 "$velmora_mm" run -- true
complains 'velmora-controller did not start'

# A socket that is for others: of mode 0660, its owner's and his group's; for root, somebody else asks.
start_controller "$work/others.sock"
nobody=65534
if [ "$(id -u)" -eq 0 ]; then
    chmod 0711 "$work" # with copies, as he may not get to the programs here
    mkdir "$work/bin"
    cp "$velmora_mm" "$work/bin/"
    cp -r "$(dirname "$velmora_mm")/../preload" "$work/"
    ends 125 setpriv --reuid=$nobody --regid=$nobody --clear-groups "$work/bin/velmora-mm" run --controller "$work/others.sock" -- true
else
    chmod 0 "$work/others.sock"
    ends 125 "$velmora_mm" run --controller "$work/others.sock" -- true
fi
complains "velmora-mm run: no permission to use the controller's socket $work/others.sock"
end_controller

# Programs of both kinds on one controller see each other's bytes.
start_controller "$work/mm.sock"
ends 0 "$velmora_mm" run --controller "$work/mm.sock" -- "$program_64" share 'from 64 bits'
address=$(cat "$work/out")
ends 0 "$velmora_mm" run --controller "$work/mm.sock" -- "$program_32" take "$address" 'from 32 bits'
[ "$(cat "$work/out")" = 'from 64 bits' ] || fail 'the 32-bit program saw something else'
(cd "$work" && "$velmora_mm" run --controller mm.sock -- "$program_64" take "$address" 'again' >"$work/out")
[ "$(cat "$work/out")" = 'from 32 bits' ] || fail 'the 64-bit program saw something else'
for program in "$program_32" "$program_64" "$program_32" "$program_64"; do
    "$velmora_mm" run --controller "$work/mm.sock" -- "$program" take "$address" together >/dev/null &
done
ends 0 "$velmora_mm" run --controller "$work/mm.sock" -- sh -c "'$program_32' take $address one && '$program_64' take $address two"

# The controller dies under a program: the program hears of it, and so does the user, once.
"$velmora_mm" run --controller "$work/mm.sock" -- "$program_64" outlives >"$work/ready" 2>"$work/errors" &
run=$!
eventually grep -q ready "$work/ready"
kill -9 "$controller"
status=0
wait "$run" || status=$?
[ "$status" -eq 0 ] || fail "the program ended with $status"
complains 'velmora-mm run: the controller is gone: the connection to it has ended'
controller=
ends 125 "$velmora_mm" run --controller "$work/mm.sock" -- true
complains "velmora-mm run: no controller is running: nobody listens at $work/mm.sock"

# A command that it does not survive: everybody has the report.
start_controller "$work/stops.sock"
ends 0 "$velmora_mm" run --controller "$work/stops.sock" -- "$program_32" stops
complains 'velmora-mm run: the simulated controller stopped: ioctl MM_CMD_MEMSET'
controller=

# A kernel that maps nothing.
start_controller "$work/refuses.sock" --refuse-mappings
for program in "$program_32" "$program_64"; do
    ends 0 "$velmora_mm" run --controller "$work/refuses.sock" -- "$program" refused-mappings
done

# A record asks the same again, and is given the same answers.
for program in "$program_32" "$program_64"; do
    ends 0 "$velmora_mm" run --record "$work/record" -- "$program" one-of-each
    # shellcheck disable=SC2046 # two numbers and an address
    set -- $(cat "$work/out")
    ends 0 "$velmora_mm" script "$work/record"
    cp "$work/out" "$work/answers"
    [ "$(sed -n '/^load/{p;q}' "$work/record")" = 'load "95000000-9e000000"' ] || fail 'the record does not load'
    grep -v -e '^#' -e '^expect' "$work/record" | tail -n +2 >"$work/lines"
    cat >"$work/wanted" <<'END'
table
start
create name=TEST type=float kind=list bytes=256K block=4K map=8 lock=yes
malloc segment=TEST bytes=8K owner=0x5 -> $a1
mmap $a1 bytes=4K
mmap $a1+0x1000 sync
poke 0x1000fff9 11111111111111
ioctl 0x5303 0x1000fff9
ioctl 0x5303 0x10010000
ioctl 0x5399 0x10010000
mst segment=TEST
END
    diff "$work/wanted" "$work/lines" >&2 || fail 'the record has other lines'
    [ "$(tail -n 1 "$work/record")" = '# end of recording' ] || fail 'the record does not say that it is whole'
    [ "$(grep -c '^= -14' "$work/answers")" -eq 2 ] || fail 'the copies do not end at the same bytes'
    [ "$(grep -c '^= met' "$work/answers")" -eq "$(grep -c '^expect' "$work/record")" ] || fail 'other answers'
    # Blocks in all and in use, and where the block lies, as the program saw them.
    grep -q " alloc=0x$2 free=" "$work/answers" || fail "not $2 blocks in use"
    grep -q "^= $3\$" "$work/answers" || fail "no block at $3"
done
ends 0 "$velmora_mm" run --controller "$work/refuses.sock" --record "$work/record" -- "$program_64" refused-mappings
grep -q '^# The controller was running before' "$work/record" || fail 'the record does not say that it begins late'
ends 0 "$velmora_mm" run --record "$work/record" -- "$program_64" forks
ends 0 "$velmora_mm" script "$work/record"
[ "$(grep -c '^malloc ' "$work/record")" -eq 1500 ] || fail 'allocations are missing in the record'
[ "$(grep -c '^= met' "$work/out")" -eq "$(grep -c '^expect' "$work/record")" ] || fail 'the same commands were answered otherwise'
ends 0 "$velmora_mm" run --record "$work/record" -- "$program_32" stops
ends 3 "$velmora_mm" script "$work/record"
grep -q '^= oops 0xa4000000' "$work/out" || fail 'the record lacks the last command'
ends 125 "$velmora_mm" run --record "$work/none/record" -- true
complains "velmora-mm run: cannot record into $work/none/record: No such file or directory"
ends 125 "$velmora_mm" run --record /dev/full -- "$program_64" answers
complains 'velmora-mm run: cannot write the record /dev/full: No space left on device'
end_controller
[ -z "$(ls "$TMPDIR")" ] || fail 'folders are left'

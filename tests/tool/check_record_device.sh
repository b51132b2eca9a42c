#!/bin/sh
# velmora-mm record in front of a device whose manager is loaded, and what recordings are good for: script, on the simulated
# controller and on the device, plan; and explain on the device's log. Whatever it has of segments goes. Stands on what a small
# system has.
#   check_record_device.sh DEVICE COMMAND...    as --device takes it; the command that starts velmora-mm
set -eu
# shellcheck source=tests/support/device.sh
. "$(dirname "$0")/../support/device.sh"
recorder=
# shellcheck disable=SC2086 # there may be none
trap 'kill $recorder 2>/dev/null || :; rm -rf "$work"' EXIT

recorded() { # COMMAND WORDS...
    command=$1
    shift
    $tool "$command" --device "unix:$work/recorded.sock" "$@"
}
has() { # FILE PATTERN
    grep -q -- "$2" "$1" || fail "missing in $(cat "$1"): $2"
}

ends 0 mm start --again
ends 0 mm create PAGE --bytes 256K --block 4K --owner-bits 8
ends 0 mm alloc PAGE 64K --owner 3
$tool record "$work/job.txt" --device "$device" --socket "$work/recorded.sock" >"$work/where" 2>"$work/said" &
recorder=$!
tries=0
until [ -s "$work/where" ]; do
    tries=$((tries + 1))
    [ $tries -lt 300 ] || fail "the recorder does not come: $(cat "$work/said")"
    sleep 0.1
done
has "$work/where" "^unix:$work/recorded.sock\$"

case $device in
/*)
    ends 2 alone record "$work/none.txt" --device "$device" --area 95000000
    ends 1 alone log --device "unix:$work/recorded.sock" --no-follow
    [ ! -e "$work/none.txt" ] || fail "there is a file without a recording"
    ;;
esac

# Through the recorder programs are answered as by the device: its state, its memory, its refusals.
ends 0 recorded create BAND --bytes 128K --block 4K --owner-bits 8
ends 0 recorded alloc BAND 20K --owner 7
address=$(sed -n 's/.* \(0x[0-9a-f]*\) [0-9]*$/\1/p' "$work/out" | tail -n 1)
printf 'seen through the node' >"$work/text"
ends 0 recorded write "$address" "$work/text"
ends 0 mm read "$address" 21 --raw
cmp -s "$work/out" "$work/text" || fail "the device has not the bytes that were written through the recorder"
ends 1 recorded alloc BAND 512K --owner 7
ends 0 recorded owners BAND
kill $recorder
wait $recorder || fail "the recorder ended otherwise: $(cat "$work/said")"
recorder=
[ ! -e "$work/recorded.sock" ] || fail "the socket of the recorder is left"

has "$work/job.txt" '^create name=PAGE '
has "$work/job.txt" '^malloc segment=PAGE bytes=64K owner=0x3 '
has "$work/job.txt" '^malloc segment=BAND bytes=20K owner=0x7 '
has "$work/job.txt" '^# end of recording$'

case $(sed -n 's/^load "\(.\).*/\1/p' "$work/job.txt") in
9) ends 0 alone script "$work/job.txt" ;;
*) has "$work/job.txt" "^# A script's own controller has no memory there" ;;
esac
ends 0 mm start --again
ends 0 mm script "$work/job.txt"
ends 0 mm owners BAND
prints '^ *7  *5 '
ends 0 alone plan "$work/job.txt"
prints BAND
ends 0 alone plan "$work/job.txt" --smallest

mm log --no-follow >"$work/log"
ends 0 alone explain "$work/log"
echo "PASS record, script, plan and explain on $device"

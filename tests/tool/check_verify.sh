#!/bin/sh
# velmora-mm verify on a device whose manager is loaded: on an area that is whole, and on one that was written over. Whatever it
# has of segments goes. Stands on what a small system has.
#   check_verify.sh DEVICE COMMAND...    as --device takes it; the command that starts velmora-mm
set -eu
# shellcheck source=tests/support/device.sh
. "$(dirname "$0")/../support/device.sh"
# The address that alloc or mst printed last.
address() {
    sed -n 's/.* \(0x[0-9a-f]*\) [0-9]*$/\1/p' "$work/out" | tail -n 1
}

ends 0 mm start --again
ends 0 mm verify
prints '^not checked: area, list of free memory: there are no segments'
prints '^0 segments .*: nothing is broken$'

ends 0 mm create BAND --bytes 64K --block 4K
ends 0 mm create PAGE --bytes 1M --owner-bits 8
ends 0 mm create STCK --bytes 64K --discipline stack
ends 0 mm alloc BAND 4K
ends 0 mm fill "$(address)" 4K 0x5a
ends 0 mm alloc BAND 8K
hole=$(address)
ends 0 mm fill "$hole" 8K 0x5a
ends 0 mm alloc BAND 4K
ends 0 mm fill "$(address)" 4K 0x5a
ends 0 mm free BAND "$hole" 8K --force
ends 0 mm alloc PAGE 64K --owner 3
ends 0 mm verify
prints '^3 segments with 3 free runs and 1 owner map, 1 stretch of free memory: nothing is broken$'
ends 0 mm verify --json
prints '"clean": true'

# The upper run's number of blocks, 2.
ends 0 mm fill "$(printf '0x%08x' $((hole + 8)))" 1 9 --force
ends 1 mm verify
prints "^BAND  $hole  run-inside: the run's number of blocks is 9, and should be 2\$"
prints ': 1 broken rule$'
ends 1 mm verify BAND --json
prints '"rule": "run-inside"'
ends 0 mm verify PAGE
prints '^1 segment with 1 free run and 1 owner map, 0 stretches of free memory: nothing is broken$'
ends 0 mm fill "$(printf '0x%08x' $((hole + 8)))" 1 2 --force
ends 0 mm verify

# A link that leads nowhere.
ends 0 mm fill "$hole" 4 0xfc --force
ends 1 mm verify BAND
prints "^BAND  $hole  run-inside: the run's link forward is 0xfcfcfcfc, and should be 0\$"
ends 0 mm fill "$hole" 4 0 --force
ends 0 mm verify

ends 0 mm create HEAP --type heap
ends 0 mm verify --log /dev/null
prints '^not checked: heap, everything: no command shows its pieces'
if mm log --no-follow >"$work/log" 2>"$work/errors"; then
    ends 0 mm verify --heap
    prints '^not checked: heap, owner map: '
    prints '^3 segments with 4 free runs'
fi

ends 1 mm verify NONE
grep -q "there is no segment 'NONE'" "$work/errors" || fail "not said that there is no such segment"
ends 1 mm verify heap
ends 1 mm verify --log "$work/none"
ends 2 mm verify BAND --heap
ends 2 mm verify --nonsense
# shellcheck disable=SC2086
ends 3 $tool verify --device unix:/nowhere/mm.sock

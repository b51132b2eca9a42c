#!/bin/sh
# velmora-mm map and watch --once on a device whose manager is loaded. Whatever it has of segments goes. Stands on what a small
# system has.
#   check_map_device.sh DEVICE COMMAND...    as --device takes it; the command that starts velmora-mm
set -eu
export LC_ALL=C # the picture is of plain characters then
# shellcheck source=tests/support/device.sh
. "$(dirname "$0")/../support/device.sh"

ends 0 mm start --again
ends 0 mm create PAGE --bytes 256K --block 4K --owner-bits 8
ends 0 mm alloc PAGE 64K --owner 3
ends 0 mm map --color never
prints '^PAGE, segment 5: '
prints '^ a character is 1 block$'
prints '\.AAAAAAAAAAAAAAAA|$' # from the high end
prints '^A owner 3     64 KiB$'
ends 0 mm map --html "$work/map.html"
grep -q ',\[16,3\]\]' "$work/map.html" || fail "not the owner's run in the page"
ends 0 mm watch --once
prints '^PAGE |###* *|'
echo "PASS map and watch on $device"

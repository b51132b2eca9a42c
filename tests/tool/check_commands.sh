#!/bin/sh
# The commands that ask a device, on a device whose manager is loaded: a simulated controller's or a real one's. Whatever it
# has of segments goes. Stands on what a small system has.
#   check_commands.sh DEVICE COMMAND...    as --device takes it; the command that starts velmora-mm
# shellcheck disable=SC2016 # names of fixed segments begin with $
set -eu
# shellcheck source=tests/support/device.sh
. "$(dirname "$0")/../support/device.sh"
# Refuses, in one line that begins as every line of the command does, and prints nothing else.
refuses() { # STATUS PATTERN WORDS...
    wanted=$1
    pattern=$2
    shift 2
    ends "$wanted" mm "$@" </dev/null
    [ ! -s "$work/out" ] || fail "$*: there is output besides the refusal"
    head -n 1 "$work/errors" | grep -q "^velmora-mm $1: .*$pattern" || fail "$*: not refused with: $pattern"
    [ "$(wc -l <"$work/errors")" -le 2 ] || fail "$*: more than a line"
}
says() { # PATTERN WORDS...
    pattern=$1
    shift
    ends 0 mm "$@"
    prints "$pattern"
}
# A number of a segment's row: columns as in the heading.
row_has() { # SEGMENT PATTERN
    ends 0 mm status --no-heap
    prints "^$1  *$2\$"
}

# Start ---------------------------------------------------------------------------------------------
says '^The library is started' start --again
says '^The library is started' start
says '^There are no segments' status --no-heap
says '^There are no segments' mst
says '^  3  $UEV  *1 MiB  0x[0-9a-f]*  *-$' mct
refuses 2 'kept, lost, jobs or flash was expected' start --memory none

# Create --------------------------------------------------------------------------------------------
says '^PAGE: handle 5, 255 blocks of 4 KiB, 1020 KiB can be used, 0x' create PAGE --bytes 1M --owner-bits 8
says '^STCK: handle 6, 16 blocks of 4 KiB, 64 KiB' create STCK --bytes 64K --discipline stack
says '^ONE: handle 7, ' create ONE --bytes 64K --owner-bits 1 --block 1K
says '^OVER: handle 8, 4 blocks of 4 KiB, 16 KiB' create OVER --bytes 16K --overflow
says '^$UEV: handle 0, 2048 blocks of 512 B, 1 MiB' create UEV --type fixed --block 512
refuses 1 "there is a segment 'PAGE' already, handle 5" create PAGE --bytes 1M
refuses 2 'one to four characters' create TOOLONG --bytes 1M
refuses 2 '\-\-bytes is missing' create NEW
refuses 2 "'3' is no width of an owner map: 0, 1, 2, 4, 8 were expected" create NEW --bytes 1M --owner-bits 3
refuses 2 'a number above 0, below 4G' create NEW --bytes 4X
refuses 2 'float, align, fixed, heap were expected' create NEW --bytes 1M --type best
refuses 2 'either --lock or --no-lock' create NEW --bytes 1M --lock --no-lock
refuses 1 'a power of two from 16 on was expected (--force' create NEW --bytes 1M --block 3000
refuses 1 'holds the lock for ever' create NEW --bytes 1M --discipline stack --lock
refuses 1 "no row 'NEW'; it has \$MCT, \$RJL, \$JCB, \$UEV, \$FIL" create NEW --type fixed
refuses 1 'MM_CMD_CREATE_SEGMENT: the manager answered 14 (EASSERT)' create NEW --bytes 2G

says '^HEAP: handle 49, the heap, ' create HEAP --type heap --block 4K --owner-bits 8
says '^heap  *49  .*  0\.00$' status # the kernel log can be read here

# Allocate, look, release ---------------------------------------------------------------------------
ends 0 mm alloc PAGE 64K --owner 7 --count 3
cp "$work/out" "$work/held"
[ "$(wc -l <"$work/held")" -eq 3 ] || fail "not three blocks"
prints '^PAGE 0x[0-9a-f]\{8\} 65536$'
row_has PAGE '5  *1020 KiB  *192 KiB  *828 KiB  *828 KiB  *1  0\.00'
ends 0 mm alloc PAGE 4K --owner 15
says '^    7      48  192 KiB     1  0x' owners PAGE
prints '^   15       1    4 KiB     1  0x'
says '^0x[0-9a-f]*      7      48  192 KiB$' owners PAGE --owner 7 --runs
refuses 1 "'STCK' has no owner map" owners STCK
refuses 1 "there is no segment 'NONE'; there are .*PAGE (5)" owners NONE
refuses 1 'the heap' owners heap
refuses 1 "0 is no owner in 'PAGE'.*: 1 to 255" alloc PAGE 4K
refuses 1 "'STCK' has no owner map" alloc STCK 4K --owner 1
refuses 1 "no room in 'PAGE' for 16 MiB: 824 KiB are free" alloc PAGE 16M --owner 1
refuses 2 "'256' is no owner" alloc PAGE 4K --owner 256
ends 1 mm alloc ONE 16K --owner 1 --count 5
[ "$(wc -l <"$work/out")" -eq 3 ] || fail "the blocks that there was room for are not printed"
grep -q 'no room in .* after 3 of 5' "$work/errors" || fail "not said for how many there was room"

address=$(sed -n '2s/.* \(0x[0-9a-f]*\) .*/\1/p' "$work/held")
refuses 1 "is free" free PAGE "$(mm mst PAGE --json | sed -n 's/.*"start": "\(.*\)".*/\1/p')" 4K
refuses 1 "no block of 'PAGE' begins at" free PAGE "${address%000}010" 4K
refuses 1 'do not lie among the blocks' free STCK "$address" 4K
refuses 1 "is owner 7's, not 8's" free PAGE "$address" 64K --owner 8
refuses 2 'SEGMENT ADDRESS BYTES' free PAGE "$address"
refuses 2 'is no address' free PAGE nowhere 4K
ends 0 mm free PAGE "$address" 64K
row_has PAGE '5  *1020 KiB  *132 KiB  *888 KiB  *824 KiB  *2  0\.07'
refuses 1 "the block at $address is free" free PAGE "$address" 64K
ends 1 mm free - <"$work/held" # of three, one is free
row_has PAGE '5  *1020 KiB  *132 KiB  .*'
sed 2d "$work/held" >"$work/rest"
cat "$work/rest" "$work/rest" >"$work/twice"
ends 1 mm free - <"$work/twice"
grep -q 'is to be released twice' "$work/errors" || fail "not said that a block is there twice"
ends 0 mm free - <"$work/rest"
row_has PAGE '5  *1020 KiB  *4 KiB  *1016 KiB  .*'

ends 0 mm alloc STCK 4K --count 3
cp "$work/out" "$work/held"
# shellcheck disable=SC2046
refuses 1 'takes back what it gave last' free $(head -n 1 "$work/held")
ends 0 mm free - <"$work/held"
row_has STCK '6  *64 KiB  *0 B  *64 KiB  *64 KiB  *1  0\.00'

ends 0 mm alloc OVER 4K --count 5
cp "$work/out" "$work/held"
grep -q '0x[0-9a-f]* lies in the heap' "$work/errors" || fail "not said that the fifth lies in the heap"
ends 0 mm free - <"$work/held"
row_has OVER '8  *16 KiB  *0 B  *16 KiB  *16 KiB  *1  0\.00'
ends 0 mm alloc heap 64K --owner 1
prints '^heap 0x[0-9a-f]* 65536$'
# shellcheck disable=SC2046
ends 0 mm free $(cat "$work/out")

# Collect -------------------------------------------------------------------------------------------
ends 0 mm alloc PAGE 8K --owner 3
refuses 1 'takes the blocks of owners whose IDs contain it: 1 of owner 15' collect PAGE 3
says '^released 12 KiB in 3 blocks: 2 of owner 3, 1 of owner 15$' collect PAGE 3 --force
says '^released 0 B in 0 blocks$' collect PAGE 3
refuses 1 'owner 0 takes every block' collect PAGE 0
refuses 1 'takes what was made permanent' collect heap 2
says 'cannot be told' collect heap 1
refuses 1 "'STCK' has no owner map" collect STCK 1
refuses 1 "2 is no owner in 'ONE', whose IDs end at 1" collect ONE 2

# Memory --------------------------------------------------------------------------------------------
ends 0 mm alloc PAGE 8K --owner 1
address=$(sed -n 's/.* \(0x[0-9a-f]*\) .*/\1/p' "$work/out")
ends 0 mm fill "$address" 8K 0
printf 'velmora' >"$work/text"
ends 0 mm write "$address" "$work/text"
says "^${address#0x}  76 65 6c 6d 6f 72 61 00  00 00 00 00 00 00 00 00  |velmora.........|\$" read "$address" 64
prints '^\*$'
ends 0 mm read "$address" 7 --raw
cmp "$work/out" "$work/text" || fail "not the bytes that were written"
ends 0 mm read "$address" 7 --output "$work/copy"
cmp "$work/copy" "$work/text" || fail "not the file that was written"
printf 'again' | mm write "$address"
says 'again' read "$address" 5 --raw
says '^0x[0-9a-f]\{8\}$' phys "$address"
refuses 1 'reach into free blocks' fill PAGE 4K 0
refuses 1 'lie in no segment' fill 0x"$(printf '%08x' $(($(mm mct --json | sed -n 's/.*"start": "\(0x[0-9a-f]*\)".*/\1/p' | head -n 1) - 4096)))" 4K 0
refuses 1 'reach past the end' fill "$(printf '0x%08x' $((address + 4096)))" 8K 0
refuses 1 'there is no memory at 0x' read 0x10 16
refuses 2 "'300' is no byte" fill "$address" 4K 300
refuses 1 'cannot read' write "$address" "$work/none"
refuses 2 'is no place in the segment' read PAGE+2M 16

# Tables --------------------------------------------------------------------------------------------
says '^PAGE: handle 5, float, list, locked$' mst PAGE
prints '^  owner map  8 bits for each block, 0x'
says '^$UEV: handle 0, fixed, list, locked$' mst 0
refuses 1 'a segment was created in' clear UEV
refuses 1 "has no row 'XYZ'" clear XYZ
says '^$JCB: 64 KiB at 0x[0-9a-f]* are zeros$' clear JCB
refuses 1 'a segment was created in' delete '$UEV'

# Log -----------------------------------------------------------------------------------------------
says 'Display MST' log --no-follow
ends 0 mm log --no-follow -n 2
[ "$(wc -l <"$work/out")" -eq 2 ] || fail "not two lines of the log"

# For programs --------------------------------------------------------------------------------------
for listing in 'status' 'owners PAGE' 'mst' 'mct' "phys $address" 'alloc ONE 1K'; do
    # shellcheck disable=SC2086
    says "^  \"schema\": \"velmora-mm ${listing%% *}\",\$" $listing --json
    prints '^  "version": 1,$'
done
says '^{"schema":"velmora-mm log","version":1,"message":' log --no-follow --json

# Start again ---------------------------------------------------------------------------------------
refuses 1 'there are segments already' start
says '^The library is started' start --again
says '^There are no segments' status --no-heap

# What is no device ---------------------------------------------------------------------------------
device=/dev/null
refuses 3 '/dev/null is no device of the memory manager' status
device=/tmp
refuses 3 '/tmp is no device node' start
device=/dev/none
refuses 3 'cannot open /dev/none: No such file or directory' status
device=unix:/tmp/none
refuses 3 'no controller is running: there is no socket /tmp/none' alloc PAGE 4K

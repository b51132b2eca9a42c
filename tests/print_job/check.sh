#!/bin/sh
# The print job as a user runs it: a two-page document that Ghostscript draws, one that is too large, bad arguments; the parties
# as three processes, one of them killed.
#   check.sh PRINT-JOB
set -eu
print_job=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cat >"$work/two.ps" <<'END'
%!PS
/Helvetica findfont 40 scalefont setfont
0.9 0.3 0.1 setrgbcolor 72 500 moveto (first page) show showpage
0 0.5 0.8 setrgbcolor 100 100 400 300 rectfill showpage
END

# shellcheck source=tests/support/program.sh
. "$(dirname "$0")/../support/program.sh"

"$print_job" --document "$work/two.ps" --dpi 50 --copies 2 --output "$work/job" >"$work/out" 2>&1 || fail "the job failed"
prints 'Printing 2 pages, 2 copies'
prints 'Display MST'
prints 'All blocks of every segment are free again'
prints 'All 2 pages of all 2 copies are identical'
for copy in 1 2; do
    for page in 0001 0002; do
        cmp "$work/job/drawn/page-$page.ppm" "$work/job/copy-$copy/page-$page.ppm"
    done
done
cmp -s "$work/job/copy-1/page-0001.ppm" "$work/job/copy-1/page-0002.ppm" && fail "both pages are the same"

"$print_job" --rasters "$work/job/drawn" --copies 1 --output "$work/again" >"$work/out" 2>&1 || fail "printing rasters failed"
prints 'All 2 pages of all 1 copies are identical'

"$print_job" --document "$work/two.ps" --dpi 1000 --output "$work/large" >"$work/out" 2>&1 && fail "a document too large was printed"
prints 'does not fit into the controller.s memory: page 1'
prints 'All blocks of every segment are free again'

"$print_job" --document "$work/none.pdf" --output "$work/none" >"$work/out" 2>&1 && fail "a missing document was printed"
prints 'there is no document'
printf 'no document at all (' >"$work/bad.ps"
"$print_job" --document "$work/bad.ps" --output "$work/bad" >"$work/out" 2>&1 && fail "a broken document was printed"
prints 'print-job: '

# Three processes on a controller of their own, the print compared with what the threads printed.
processes() { # OUTPUT ARGUMENT...
    output=$1
    shift
    "$print_job" --processes --rasters "$work/pages" --copies 3 --output "$work/$output" "$@" >"$work/out" 2>&1 ||
        fail "three processes failed: $*"
    prints 'Printing 4 pages, 3 copies: .* three processes'
    prints 'Display MST'
    prints 'All blocks of every segment are free again'
    prints 'All 4 pages of all 3 copies are identical'
    for copy in 1 2 3; do
        diff -r "$work/pages" "$work/$output/copy-$copy" || fail "copy $copy differs: $*"
    done
}
mkdir "$work/pages"
for page in 1 2 3 4; do
    cp "$work/job/drawn/page-000$(((page + 1) % 2 + 1)).ppm" "$work/pages/page-$page.ppm"
done
processes three
grep -q 'collected by owner' "$work/out" && fail "a party was lost by itself"
# The signal may reach the raster processor when it is through with the page, and has been asked for the next.
for page in 1 3; do
    processes "raster-$page" --lose "raster:$page"
    prints "The raster processor was ended by signal 9: [0-9.]* MiB of [$page$((page + 1))] pages collected by owner, all blocks are free; printing the job again"
    processes "copy-$page" --lose "copy:$page"
    prints 'The collation copy was ended by signal 9: .* collected by owner, all blocks are free; printing the job again'
done
# One that is stopped owes an answer for too long.
processes raster-stopped --lose raster:2:stop --patience 1
prints 'The raster processor gave no sign of life for 1 s and was ended: .* of [23] pages collected by owner, all blocks are free'
processes copy-stopped --lose copy:2:stop --patience 1
prints 'The collation copy gave no sign of life for 1 s and was ended: .* collected by owner, all blocks are free'
# Pages that do not fit into the segment: the heap has owners as well.
"$print_job" --document "$work/two.ps" --dpi 250 --copies 1 --output "$work/fine" >"$work/out" 2>&1 || fail "fine pages failed"
for page in 1 2 3 4; do
    ln -f "$work/fine/drawn/page-000$(((page + 1) % 2 + 1)).ppm" "$work/pages/page-$page.ppm"
done
for party in raster copy; do
    processes "heap-$party" --lose "$party:2"
    prints 'of them from the heap'
    prints 'was ended by signal 9: .* collected by owner, all blocks are free; printing the job again'
done
# Where the manager overflows by itself, blocks have no owner: the raster processor is heard out when the other is lost.
processes overflow --overflow --lose copy:2
prints 'of them from the heap'
prints 'The collation copy was ended by signal 9: .* collected by owner, all blocks are free; printing the job again'
"$print_job" --processes --document "$work/two.ps" --dpi 1000 --output "$work/large" >"$work/out" 2>&1 &&
    fail "three processes printed a document too large"
prints 'print-job: the document does not fit into the controller.s memory: page 1'
prints 'All blocks of every segment are free again'

# The same on a controller that runs already, one job after another.
"$(dirname "$print_job")/velmora-controller" --socket "$work/mm.sock" &
controller=$!
trap 'kill "$controller" 2>/dev/null; rm -rf "$work"' EXIT
for attempt in 1 2 3 4 5 6 7 8 9 10; do
    [ -S "$work/mm.sock" ] && break
    [ "$attempt" -lt 10 ] || fail "no controller"
    sleep 0.5
done
for job in first second; do
    "$print_job" --processes --device "unix:$work/mm.sock" --lose raster:2 --rasters "$work/pages" --copies 1 \
        --output "$work/$job" >"$work/out" 2>&1 || fail "the $job job on a shared controller failed"
    prints 'of [23] pages collected by owner, all blocks are free'
    prints 'Display MST' # which the controller printed, whatever this machine's kernel says
    prints 'All 4 pages of all 1 copies are identical'
done

refused() { # STATUS TEXT ARGUMENT...
    wanted=$1 text=$2
    shift 2
    status=0
    "$print_job" "$@" >"$work/out" 2>&1 || status=$?
    [ "$status" -eq "$wanted" ] || fail "$* ended with $status"
    prints "$text"
}
refused 2 '--copies: Value many not in range 1 to 999' --copies many
prints 'print-job --help'
refused 2 '--dpi: Value 17 not in range 18 to 1200' --dpi 17
refused 2 '--document lacks its value' --document
refused 2 'unknown option --nonsense' --nonsense
refused 2 "unexpected argument 'file.pdf'" file.pdf
refused 2 '--lose: collation:1 is not raster:N or copy:N, nor one of them with :stop' --processes --lose collation:1
refused 2 '--lose: there is no page 5' --processes --lose raster:5 --rasters "$work/pages" --output "$work/none"
refused 2 '--lose requires --processes' --lose raster:1
refused 2 '--page-block: a power of two of at least 4096 is expected' --page-block 3000
refused 2 '--heap-block: a power of two is expected, not below --page-block' --page-block 16K
refused 2 '--page-segment: at least one block is expected' --page-segment 1K
refused 2 '--page-segment' --page-segment many
refused 2 '--patience: Value 0 not in range 1 to 3600' --processes --patience 0
# A device that is none of the manager's is noticed before anything is drawn.
refused 1 'print-job: cannot open /dev/nope: No such file or directory' --device /dev/nope --output "$work/nope"
[ "$(wc -l <"$work/out")" -eq 1 ] || fail "more than one line about a missing device"
refused 1 "/dev/null is not the memory manager's device: MM_CMD_GET_MCT: ENOTTY: Inappropriate ioctl for device" \
    --device /dev/null --output "$work/nope"
[ ! -e "$work/nope" ] || fail "pages were drawn for a device that is not there"

status=0
"$print_job" --rasters "$work/job/drawn" --copies 1 --output "$work/again" >/dev/full 2>"$work/out" || status=$?
[ "$status" -eq 1 ] || fail "output to a full device ended with $status"
prints 'print-job: cannot write the output: No space left on device'

"$print_job" --help >"$work/out"
prints 'usage: print-job'
"$print_job" --version >"$work/out"
prints '^print-job [0-9]*[.][0-9]*[.][0-9]*$'

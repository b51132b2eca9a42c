#!/bin/sh
# The print job as a user runs it: a two-page document that Ghostscript draws, one that is too large, bad arguments.
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

fail() {
    echo "$1" >&2
    cat "$work/out" >&2
    exit 1
}
expect() {
    grep -q -- "$1" "$work/out" || fail "missing in the output: $1"
}

"$print_job" --document "$work/two.ps" --dpi 50 --copies 2 --output "$work/job" >"$work/out" 2>&1 || fail "the job failed"
expect 'Printing 2 pages, 2 copies'
expect 'Display MST'
expect 'All blocks of every segment are free again'
expect 'All 2 pages of all 2 copies are identical'
for copy in 1 2; do
    for page in 0001 0002; do
        cmp "$work/job/drawn/page-$page.ppm" "$work/job/copy-$copy/page-$page.ppm"
    done
done
cmp -s "$work/job/copy-1/page-0001.ppm" "$work/job/copy-1/page-0002.ppm" && fail "both pages are the same"

"$print_job" --rasters "$work/job/drawn" --copies 1 --output "$work/again" >"$work/out" 2>&1 || fail "printing rasters failed"
expect 'All 2 pages of all 1 copies are identical'

"$print_job" --document "$work/two.ps" --dpi 1000 --output "$work/large" >"$work/out" 2>&1 && fail "a document too large was printed"
expect 'does not fit into the controller.s memory: page 1'
expect 'All blocks of every segment are free again'

"$print_job" --document "$work/none.pdf" --output "$work/none" >"$work/out" 2>&1 && fail "a missing document was printed"
expect 'there is no document'
printf 'no document at all (' >"$work/bad.ps"
"$print_job" --document "$work/bad.ps" --output "$work/bad" >"$work/out" 2>&1 && fail "a broken document was printed"
expect 'print-job: '
refused() { # STATUS TEXT ARGUMENT...
    wanted=$1 text=$2
    shift 2
    status=0
    "$print_job" "$@" >"$work/out" 2>&1 || status=$?
    [ "$status" -eq "$wanted" ] || fail "$* ended with $status"
    expect "$text"
}
refused 2 '--copies: Value many not in range 1 to 999' --copies many
expect 'print-job --help'
refused 2 '--dpi: Value 17 not in range 18 to 1200' --dpi 17
refused 2 '--document lacks its value' --document
refused 2 'unknown option --nonsense' --nonsense
refused 2 "unexpected argument 'file.pdf'" file.pdf
# A device that is none of the manager's is noticed before anything is drawn.
refused 1 'print-job: cannot open /dev/nope: No such file or directory' --device /dev/nope --output "$work/nope"
[ "$(wc -l <"$work/out")" -eq 1 ] || fail "more than one line about a missing device"
refused 1 "/dev/null is not the memory manager's device: MM_CMD_GET_MCT: ENOTTY: Inappropriate ioctl for device" \
    --device /dev/null --output "$work/nope"
[ ! -e "$work/nope" ] || fail "pages were drawn for a device that is not there"

status=0
"$print_job" --rasters "$work/job/drawn" --copies 1 --output "$work/again" >/dev/full 2>"$work/out" || status=$?
[ "$status" -eq 1 ] || fail "output to a full device ended with $status"
expect 'print-job: cannot write the output: No space left on device'

"$print_job" --help >"$work/out"
expect 'usage: print-job'
"$print_job" --version >"$work/out"
expect '^print-job [0-9]*[.][0-9]*[.][0-9]*$'

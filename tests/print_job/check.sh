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
status=0
"$print_job" --copies many >"$work/out" 2>&1 || status=$?
[ "$status" -eq 2 ] || fail "bad arguments ended with $status"
expect 'print-job --help'
"$print_job" --help >"$work/out"
expect 'usage: print-job'

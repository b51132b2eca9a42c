#!/bin/sh
# Weeks of print jobs on both builds of the manager at a time, on the simulated controller; then a plot of the first week. The presets
# "x86" and "guarded" must have been built.
#   scripts/soak.sh HOURS [SEED]       HOURS: of this machine, fractions allowed; SEED: default the time
#   DOCS=yes                           the plot goes into docs/soak.svg as well
set -eu
cd "$(dirname "$0")/.."
hours=${1:-}
seed=${2:-$(date +%s)}
work=build/soak

if ! echo "$hours" | grep -Eqx '[0-9]{1,4}(\.[0-9]{1,6})?' || ! echo "$hours" | grep -q '[1-9]' ||
    ! echo "$seed" | grep -Eqx '[0-9]{1,10}'; then
    echo "soak.sh: HOURS='$hours' must be a number above 0 and below 10000, as 0.5, SEED='$seed' a whole number" >&2
    exit 2
fi

mkdir -p "$work"
echo "Print jobs for $hours hours, seed $seed"
status=0
build/guarded/bin/velmora-soak "$hours" "$seed" "$work/guarded.csv" >"$work/guarded.log" 2>&1 &
guarded=$!
build/bin/velmora-soak "$hours" "$seed" "$work/default.csv" >"$work/default.log" 2>&1 || status=1
wait "$guarded" || status=1
for build in default guarded; do
    echo "The $build build:"
    cat "$work/$build.log"
done
[ "$status" -eq 0 ] || {
    echo "soak.sh: failed; again with: make soak HOURS=$hours SEED=$seed" >&2
    exit 1
}
python3 scripts/soak_plot.py "$work/default.csv" "$work/guarded.csv" "$work/soak.svg"
[ -z "${DOCS:-}" ] || cp "$work/soak.svg" docs/soak.svg
echo "$work/soak.svg"

#!/bin/sh
# Makes docs/map.png: the map of a simulated controller's memory while the print job runs on it. make build demo comes first.
#   scripts/map-picture.sh [FILE]
set -eu
cd "$(dirname "$0")/.."
scripts/setup.sh demo test-pages
picture=$(realpath -m "${1:-docs/map.png}")
work=$(mktemp -d)
trap 'kill $processes 2>/dev/null; rm -rf "$work"' EXIT
processes=
export VELMORA_MM_DEVICE="unix:$work/controller.sock"

build/bin/velmora-controller --socket "$work/controller.sock" >"$work/controller.log" &
processes=$!
until [ -S "$work/controller.sock" ]; do sleep 0.1; done
build/bin/print-job --processes --device "$VELMORA_MM_DEVICE" --dpi 60 --output "$work/out" >"$work/job.log" &
processes="$processes $!"
# A dozen pages are there, and the segment is not full.
until [ "$(build/bin/velmora-mm map --no-heap | grep -o '[A-Z] owner' | wc -l)" -ge 12 ]; do :; done
build/bin/velmora-mm map --html "$work/map.html"
wait "${processes#* }"
chromium --headless --no-sandbox --disable-gpu --hide-scrollbars --user-data-dir="$work/profile" --window-size=1000,820 \
    --screenshot="$picture" "file://$work/map.html" 2>"$work/chromium.log" || {
    cat "$work/chromium.log" >&2
    exit 1
}

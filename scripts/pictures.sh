#!/bin/sh
# Makes the README's pictures of the print job: docs/map.png, memory while it runs, and docs/plan.png, the plan made of its
# recording. make build demo comes first.
#   scripts/pictures.sh [FOLDER]     where they go, instead of docs
set -eu
cd "$(dirname "$0")/.."
scripts/setup.sh demo test-pages
folder=$(realpath -m "${1:-docs}")
work=$(mktemp -d)
processes=
trap 'kill $processes 2>/dev/null || true; rm -rf "$work"' EXIT
export VELMORA_MM_DEVICE="unix:$work/recorder.sock"

# picture PAGE HEIGHT FILE
picture() {
    chromium --headless --no-sandbox --disable-gpu --hide-scrollbars --user-data-dir="$work/profile" \
        --window-size="1000,$2" --screenshot="$3" "file://$1" 2>"$work/chromium.log" || {
        cat "$work/chromium.log" >&2
        exit 1
    }
}

build/bin/velmora-controller --socket "$work/controller.sock" >"$work/controller.log" &
processes=$!
until [ -S "$work/controller.sock" ]; do sleep 0.1; done
build/bin/velmora-mm record "$work/job.txt" --device "unix:$work/controller.sock" --socket "$work/recorder.sock" \
    >"$work/record.log" &
recorder=$!
processes="$processes $recorder"
until [ -S "$work/recorder.sock" ]; do sleep 0.1; done
build/bin/print-job --processes --overflow --device "$VELMORA_MM_DEVICE" --dpi 60 --output "$work/out" >"$work/job.log" &
job=$!
# A dozen pages are there, and the segment is not full.
until [ "$(build/bin/velmora-mm map --no-heap --device "unix:$work/controller.sock" | grep -o '[A-Z] owner' | wc -l)" -ge 12 ]; do
    :
done
build/bin/velmora-mm map --html "$work/map.html" --device "unix:$work/controller.sock"
wait "$job"
kill -INT "$recorder"
wait "$recorder"
picture "$work/map.html" 820 "$folder/map.png"
tool=$PWD/build/bin/velmora-mm
(cd "$work" && "$tool" plan job.txt --without-probes --smallest --html plan.html >plan.log)
picture "$work/plan.html" 1340 "$folder/plan.png"

#!/bin/sh
# How long status and owners take for a segment of 128 MiB with 100,000 runs, on a simulated controller. No test: a figure for
# those who change how runs are read.
#   measure_runs.sh CONTROLLER TOOL    (build/bin/velmora-controller build/bin/velmora-mm)
set -eu
tool=$2
folder=$(mktemp -d)
"$1" --socket "$folder/mm.sock" &
process=$!
trap 'kill $process; rm -rf "$folder"' EXIT
export VELMORA_MM_DEVICE="unix:$folder/mm.sock"
until [ -S "$folder/mm.sock" ]; do sleep 0.1; done

measure() { # OWNER-BITS OWNER COMMAND...
    bits=$1
    owner=$2
    shift 2
    echo "owner map of $bits bits:"
    "$tool" start --again >/dev/null
    "$tool" create BIG --bytes 128M --block 256 --owner-bits "$bits" >/dev/null
    "$tool" alloc BIG 256 --owner "$owner" --count 200000 >"$folder/held"
    sed -n 'n;p' "$folder/held" >"$folder/half"
    "$tool" free - <"$folder/half"
    for command; do
        begin=$(date +%s%N)
        # shellcheck disable=SC2086
        "$tool" $command >/dev/null
        echo "$command: $((($(date +%s%N) - begin) / 1000000)) ms"
    done
}
measure 8 7 'status' 'owners BIG' 'status --json' 'owners BIG --runs --json' 'verify BIG'
measure 0 0 'status' 'verify BIG'

#!/bin/sh
# Fuzzes every target of both builds, one after the other; what is found lies in build/fuzz/found/. The programs are built before.
#   scripts/fuzz.sh check TIME        is that a time? seconds, or with s, m or h behind them: 90, 90s, 30m, 2h
#   scripts/fuzz.sh run TIME SEED     TIME each
set -eu
cd "$(dirname "$0")/.."

# Seconds of a time; nothing for what is none, or more than a week.
seconds() {
    number=${1%[smh]}
    case $number in
    '' | 0* | *[!0-9]* | ???????*) return 1 ;;
    esac
    case $1 in
    *m) number=$((number * 60)) ;;
    *h) number=$((number * 3600)) ;;
    esac
    [ "$number" -le 604800 ] || return 1
    echo "$number"
}

time=$(seconds "$2") || {
    echo "fuzz: TIME=$2 is no time: seconds are expected, or a number with s, m or h behind it (90, 30m, 2h), a week at most" >&2
    exit 2
}
[ "$1" = run ] || exit 0
seed=$3
export ASAN_OPTIONS=detect_leaks=0

# target BUILD NAME LENGTH: with what an earlier run found and what is kept.
target() {
    programs=build/$1/bin
    corpus=build/$1/$2-corpus
    mkdir -p "$corpus" build/fuzz/found
    kept=
    [ ! -d "tests/fuzz/$2-corpus" ] || kept=tests/fuzz/$2-corpus
    echo "fuzz: $2 ($1), $time s"
    # shellcheck disable=SC2086
    "$programs/fuzz-$2-target" -seed="$seed" -max_total_time="$time" -max_len="$3" -len_control=0 -rss_limit_mb=0 -timeout=60 \
        -artifact_prefix="build/fuzz/found/$1-$2-" -print_final_stats=1 "$corpus" $kept
}

build/bin/fuzz-index --seed "$seed" --seconds "$time"
target fuzz index 4096
build/bin/fuzz-protocol --seed "$seed" --runs $((time * 1000))
for build in fuzz fuzz-guarded; do
    target "$build" protocol 2000
    target "$build" device 3000
    target "$build" parameter 18
    target "$build" session 2000
done
echo "fuzz: nothing was found"

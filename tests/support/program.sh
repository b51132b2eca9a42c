# shellcheck shell=sh
# What checks of programs share. Sourced, with the folder that they work in as $work.
work=${work:?}
: >"$work/out"
: >"$work/errors"

fail() {
    echo "$1" >&2
    cat "$work/out" "$work/errors" >&2
    exit 1
}
# Runs a command, whose output goes to $work/out and $work/errors, and says how it has to end.
ends() { # STATUS COMMAND...
    wanted=$1
    shift
    status=0
    "$@" >"$work/out" 2>"$work/errors" || status=$?
    [ "$status" -eq "$wanted" ] || fail "$* ended with $status, not $wanted"
}
prints() {
    grep -q -- "$1" "$work/out" || fail "missing in the output: $1"
}

#!/bin/sh
# velmora-mm log on a simulated controller: what there is, what comes, and the end of the controller; and other commands then.
#   check_log.sh CONTROLLER COMMAND...
set -eu
controller=$1
shift
work=$(mktemp -d)
process='' follower=''
trap 'kill $process $follower 2>/dev/null || true; rm -rf "$work"' EXIT
# shellcheck source=tests/support/program.sh
. "$(dirname "$0")/../support/program.sh"
export VELMORA_MM_DEVICE="unix:$work/mm.sock"

# Waits until a command succeeds.
until_true() { # WHAT COMMAND...
    what=$1
    shift
    tries=0
    until "$@" 2>/dev/null; do
        tries=$((tries + 1))
        [ $tries -lt 200 ] || fail "$what"
        sleep 0.1
    done
}
"$controller" --socket "$work/mm.sock" 2>/dev/null &
process=$!
until_true "the controller did not come" [ -S "$work/mm.sock" ]

ends 0 "$@" start
ends 0 "$@" log --no-follow
cp "$work/out" "$work/before"
"$@" log >"$work/followed" 2>"$work/said" &
follower=$!
until_true "what there is does not come" cmp "$work/before" "$work/followed"
ends 0 "$@" status
until_true "what is printed meanwhile does not come" grep -q 'Display MST' "$work/followed"
ends 0 "$@" log --no-follow
until_true "not the same as without following" cmp "$work/out" "$work/followed"
ends 0 "$@" log --no-follow --lines 0
[ ! -s "$work/out" ] || fail "more than no lines"
ends 2 "$@" log -n x
grep -q "^velmora-mm log: 'x' is no number" "$work/errors" || fail "not said that x is no number"

kill "$process"
wait "$process" || true
status=0
wait "$follower" || status=$?
[ "$status" -eq 3 ] || fail "the follower ended with $status, not 3"
grep -q '^velmora-mm log: the controller was switched off$' "$work/said" || fail "not said why it ended: $(cat "$work/said")"
[ "$(wc -l <"$work/said")" -eq 1 ] || fail "more than a line: $(cat "$work/said")"
ends 3 "$@" status
grep -q '^velmora-mm status: no controller is running' "$work/errors" || fail "not said that there is no controller"

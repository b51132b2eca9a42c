#!/bin/sh
# velmora-mm explain as a user meets it: a log in a pipe or a file, and a log of others.
#   check_explain.sh COMMAND...    the command that starts velmora-mm
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=tests/support/program.sh
. "$(dirname "$0")/../support/program.sh"

# A release that fails in a segment with a lock, and the command that then waits for ever: the session's own answers.
sessions=$(dirname "$0")/../sessions
ends 3 "$@" script "$sessions/stack-lock-stays-held.txt"
mv "$work/out" "$work/log"
ends 0 "$@" explain "$work/log"
prints '^A pop of something that is not on top$'
prints "'pop_lock' is held with interrupts off"
prints '^A lock that is held for ever$'

printf '<4>[    9.1] bigphysares : 0x95100000 ~ 0x9df00000\n' >"$work/log"
for words in '' '-' '--all' '--json -'; do
    # shellcheck disable=SC2086
    ends 0 "$@" explain $words <"$work/log"
    prints 'The managed area'
done

printf 'usb 1-1: new device\n' >"$work/log"
ends 1 "$@" explain <"$work/log"
grep -qx "velmora-mm explain: none of the manager's messages is in standard input (1 line)" "$work/errors" ||
    fail "a log of others is not said to be one"
ends 1 "$@" explain "$work"
grep -q "velmora-mm explain: cannot read $work: " "$work/errors" || fail "no word on the folder"

#!/bin/sh
# Runs a session script and compares the answers with the expected ones. Line numbers of checks read N.
#   check.sh SCRIPT.txt COMMAND...        COMMAND: velmora-mm, with an emulator before it where needed
# A first line "# exit N" in the script names the exit status; 0 otherwise.
set -u
script=$1
shift
expected_status=$(sed -n '1s/^# exit //p' "$script")
actual=$(mktemp)
trap 'rm -f "$actual"' EXIT

"$@" script "$script" >"$actual"
status=$?
sed -E 's/,line=[0-9]+\\n/,line=N\\n/' "$actual" | diff -u "${script%.txt}.answers" - || exit 1
[ "$status" -eq "${expected_status:-0}" ] || { echo "exit status $status, expected ${expected_status:-0}"; exit 1; }

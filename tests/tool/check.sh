#!/bin/sh
# velmora-mm as a user meets it: what can be refused, and what is said then. Scripts and areas have tests of their own.
#   check.sh VERSION COMMAND...    the command that starts velmora-mm
set -eu
version=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=tests/support/program.sh
. "$(dirname "$0")/../support/program.sh"

complains() {
    grep -q -- "$1" "$work/errors" || fail "missing among the errors: $1, but: $(cat "$work/errors")"
    [ ! -s "$work/out" ] || fail "there is output besides the error"
}

ends 0 "$@" --version
[ "$(cat "$work/out")" = "velmora-mm $version" ] || fail "not version $version"
for words in --help -h help; do
    ends 0 "$@" "$words"
    prints 'usage: velmora-mm '
    prints '^  script '
done
for words in 'script --help' 'script -h' 'help script'; do
    # shellcheck disable=SC2086
    ends 0 "$@" $words
    prints 'usage: velmora-mm script'
    prints '^exit status'
done
for words in 'area --help' 'area -h' 'help area'; do
    # shellcheck disable=SC2086
    ends 0 "$@" $words
    prints 'usage: velmora-mm area'
    prints '--page-offset ADDR'
done

for words in 'run --help' 'run -h' 'help run'; do
    # shellcheck disable=SC2086
    ends 0 "$@" $words
    prints 'usage: velmora-mm run '
    prints '--record FILE'
    prints '^exit status'
done

ends 2 "$@"
complains 'a command is missing$'
ends 2 "$@" nonsense
complains "unknown command 'nonsense'$"
ends 2 "$@" --nonsense
complains 'unknown option --nonsense'
ends 2 "$@" script --nonsense
complains 'unknown option --nonsense'
ends 2 "$@" script one two
complains "unexpected argument 'two'"
ends 2 "$@" help nonsense
complains "no help on 'nonsense': it is no command$"
ends 2 "$@" area --nonsense
complains "velmora-mm area: unknown option --nonsense"

printf 'locks\n' >"$work/locks.txt"
ends 0 "$@" script "$work/locks.txt"
[ "$(cat "$work/out")" = '= search=0 free=0 push=0 pop=0' ] || fail "not the answer to locks"
ends 0 "$@" script <"$work/locks.txt"
prints '^= search=0'
: >"$work/empty.txt"
ends 0 "$@" script "$work/empty.txt"
printf 'nonsense\n' >"$work/wrong.txt"
ends 2 "$@" script "$work/wrong.txt"
prints '^! line 1: '
printf 'load "95000000-9e000000"\nioctl 0x5304 {000000a40000000001000000}\nlocks\n' >"$work/closes.txt"
ends 3 "$@" script "$work/closes.txt"
prints '^= oops 0xa4000000'

ends 1 "$@" script "$work/none.txt"
complains "cannot read '$work/none.txt': No such file or directory"
ends 1 "$@" script "$work"
complains "cannot read '$work': Is a directory"
ends 1 "$@" script <"$work"
complains 'cannot read standard input: Is a directory'

# A full device takes nothing, whatever was to be written.
for words in --help --version help 'script --help' "script $work/locks.txt" "script $work/closes.txt" 'area --help' \
    'area --text 16M+144M'; do
    status=0
    # shellcheck disable=SC2086
    "$@" $words >/dev/full 2>"$work/errors" || status=$?
    [ "$status" -eq 1 ] || fail "$words to a full device ended with $status"
    grep -q '^velmora-mm: cannot write the output: No space left on device$' "$work/errors" || fail "no word of a full device"
done

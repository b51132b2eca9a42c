# shellcheck shell=sh
# What checks of the tool on a device share. Sourced by a check whose words are DEVICE, as --device takes it, and the COMMAND... that
# starts velmora-mm. Stands on what a small system has.
device=$1
shift
tool=$*
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=tests/support/program.sh
. "$(dirname "$0")/../support/program.sh"

mm() { # COMMAND WORDS...
    command=$1
    shift
    $tool "$command" --device "$device" "$@"
}
alone() { # COMMAND WORDS...: without the device
    $tool "$@"
}

#!/bin/sh
# Runs a check with a simulated controller of its own.
#   with_controller.sh CONTROLLER CHECK WORDS...    the check's first argument is the device, WORDS come behind it
set -eu
controller=$1
check=$2
shift 2
folder=$(mktemp -d)
socket=$folder/mm.sock
"$controller" --socket "$socket" 2>"$folder/errors" &
process=$!
trap 'kill $process 2>/dev/null || true; wait $process || true; cat "$folder/errors" >&2; rm -rf "$folder"' EXIT
tries=0
until [ -S "$socket" ]; do
    tries=$((tries + 1))
    [ $tries -lt 100 ] || { echo "with_controller.sh: the controller did not come" >&2; exit 1; }
    sleep 0.1
done
case $check in
*.py) python3 "$check" "unix:$socket" "$@" ;;
*) sh "$check" "unix:$socket" "$@" ;;
esac

#!/bin/sh
# The simulated machine lies below the manager: it includes the platform boundary and nothing else of the kernel's side,
# and calls nothing of the manager.
#   check_machine.sh NM ROOT MACHINE-ARCHIVE MANAGER-ARCHIVE
set -eu
nm=$1
root=$2
machine=$3
manager=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0

if grep -n '#include' "$root"/host/*.h "$root"/host/*.cpp | grep -vE '#include (<|"host/|"kernel/mm/MM_Platform\.h")'; then
    echo "the machine includes more than the platform boundary"
    status=1
fi

"$nm" "$manager" | awk 'NF == 3 && $2 ~ /[A-Z]/ { print $3 }' | sort -u >"$work/defined"
"$nm" "$machine" | awk '$1 == "U" { print $2 }' | sort -u >"$work/undefined"
if ! [ -s "$work/defined" ] || ! [ -s "$work/undefined" ]; then
    echo "no symbols found"
    exit 1
fi
# What the compiler emits for inline functions of the library may be in both.
if comm -12 "$work/defined" "$work/undefined" | grep -vE '^_ZN?K?S|^__x86\.'; then
    echo "the machine refers to the manager"
    status=1
fi
exit $status

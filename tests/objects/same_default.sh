#!/bin/sh
# Is the default build the same in two source trees? A change to the guarded build, or to how the core is written, has to
# leave it as it was: every instruction, relocation and byte of the manager's objects, for 32-bit x86 and ARMv7. Only the
# line numbers that failed checks print may differ, so both are compiled without.
#   same_default.sh OLD [NEW]      source trees; NEW is this one when left out
set -eu
if [ $# -lt 1 ] || [ $# -gt 2 ] || [ ! -d "$1/kernel/mm" ]; then
    echo "same_default.sh: expected OLD [NEW], source trees with kernel/mm in them (git worktree add OLD main)" >&2
    exit 2
fi
old=$(cd "$1" && pwd)
new=$(cd "${2:-$(dirname "$0")/../..}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0
compared=0

# contents TREE SOURCE TOOLS COMPILER... : code, data and sizes of what is compiled
contents() {
    tree=$1 source=$2 tools=$3
    shift 3
    (cd "$tree" && "$@" -O2 -w -std=c++20 -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -D__LINE__=0 \
        -Iinclude -I. -c "$source" -o "$work/object")
    "${tools}objdump" -h -d -r -s "$work/object"
}

compare() {
    for source in $({ cd "$old" && ls kernel/mm/mm/*.cpp kernel/mm/mmi/*.cpp; cd "$new" && ls kernel/mm/mm/*.cpp kernel/mm/mmi/*.cpp; } | sort -u); do
        contents "$old" "$source" "$@" >"$work/old"
        contents "$new" "$source" "$@" >"$work/new"
        compared=$((compared + 1))
        cmp -s "$work/old" "$work/new" && continue
        echo "$source differs ($2):"
        diff "$work/old" "$work/new" | head -n 12
        status=1
    done
}
compare "" g++-12 -m32
compare arm-linux-gnueabihf- arm-linux-gnueabihf-g++ -march=armv7-a+fp
[ "$status" -ne 0 ] || echo "$compared objects are the same"
exit $status

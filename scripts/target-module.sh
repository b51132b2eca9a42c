#!/bin/sh
# Builds velmora_mm.ko for a kernel tree and prints its path last. The sources stay clean: Kbuild works in a
# tree of links under build/module/, one for each kernel tree. Beside the module lie the headers for other
# kernel code (include/) and the checksums of its exported entries (Module.symvers).
#   KDIR=kernel-tree [ARCH=arm] [CROSS_COMPILE=arm-linux-gnueabihf-] [GUARDED=1] [STRICT=1] scripts/target-module.sh [FOLDER]
# Without KDIR Debian's ARMv7 kernel is taken, that of the suite TARGET_SUITE if it is set. FOLDER: another module of
# this repository, built against velmora_mm.
set -eu
called_from=$PWD
cd "$(dirname "$0")/.."
root=$PWD

if [ -n "${KDIR:-}" ]; then
    kdir=$(cd "$called_from" && cd "$KDIR" && pwd -P) || {
        echo "target-module.sh: KDIR=$KDIR is no folder" >&2
        exit 2
    }
else
    kernel=$(scripts/target-kernel.sh)
    kdir=$(cd "$kernel/headers" && pwd -P)
fi
[ -e "$kdir/Makefile" ] || {
    echo "target-module.sh: $kdir is no kernel tree: it has no Makefile" >&2
    exit 2
}

folder=${1:-kernel/linux}
place=$root/build/module/$(basename "$kdir")-$(echo "$kdir" | cksum | cut -d' ' -f1)${GUARDED:+-guarded}
tree=$place/source
mkdir -p "$tree"
# Links are made afresh, so that a source that has gone is gone here too; objects stay. Sources only: what a direct
# Kbuild build leaves in kernel/linux is none of this tree's.
find "$tree" -type l -delete
find kernel include tests/target/modules -type f ! -name '*.mod.c' \
    \( -name '*.c' -o -name '*.cpp' -o -name '*.h' -o -name Kbuild \) | while IFS= read -r source; do
    mkdir -p "$tree/$(dirname "$source")"
    ln -s "$root/$source" "$tree/$source"
done

extra=
[ "$folder" = kernel/linux ] || extra="KBUILD_EXTRA_SYMBOLS=$place/Module.symvers"
log=$place/$(basename "$folder").log
status=0
# shellcheck disable=SC2086
${MAKE:-make} --no-print-directory -C "$kdir" M="$tree/$folder" ARCH="${ARCH:-arm}" \
    CROSS_COMPILE="${CROSS_COMPILE:-arm-linux-gnueabihf-}" GUARDED="${GUARDED:-}" $extra modules >"$log" 2>&1 || status=$?
cat "$log"
[ "$status" -eq 0 ] || exit "$status"
# Old kernels only warn of a symbol that they do not export; without a list of what they export nobody can tell.
if [ -e "$kdir/Module.symvers" ] && grep -E 'WARNING:.*undefined!' "$log" >/dev/null; then
    echo "target-module.sh: the module needs symbols that this kernel does not export" >&2
    exit 1
fi
# New compilers find something to say of old kernels' headers; the tests allow nothing of this project's files. A compiler's
# line begins with the file, the linker's names the module or an object of it.
own_warnings() {
    grep -E 'warning:|WARNING:' "$log" | while IFS= read -r line; do
        case $line in
        WARNING:*velmora_mm*.ko* | "WARNING: modpost: velmora_mm"* | WARNING:*"$tree"/* | "$tree"/*) echo "$line" ;;
        [!/]*:*) [ ! -e "$tree/$folder/${line%%:*}" ] || echo "$line" ;;
        esac
    done
}
if [ -n "${STRICT:-}" ] && [ -n "$(own_warnings)" ]; then
    own_warnings >&2
    echo "target-module.sh: the build printed warnings of this project's files" >&2
    exit 1
fi

if [ "$folder" = kernel/linux ]; then
    mkdir -p "$place/include/velmora_mm"
    cp "$tree/kernel/linux/velmora_mm.ko" "$place/velmora_mm.ko"
    if [ -e "$tree/kernel/linux/Module.symvers" ]; then
        cp "$tree/kernel/linux/Module.symvers" "$place/"
    fi
    cp kernel/mm/mm/MM.h "$place/include/"
    cp include/velmora_mm/velmora_mm.h "$place/include/velmora_mm/"
    echo "$place/velmora_mm.ko"
else
    echo "$tree/$folder"
fi

#!/bin/sh
# Fills a folder with what every run on the emulated controller has: the first process, a shell, the module, the load
# script, the group of the device node, the board's values; and the programs that are named, from build/target/bin/.
#   [BOARD=NAME] scripts/target-image.sh FOLDER PROGRAM...
set -eu
cd "$(dirname "$0")/.."
. scripts/target-board.sh
work=build/target
image=$1
shift

kernel=$(scripts/target-kernel.sh)
rm -rf "$image"
mkdir -p "$image/bin" "$image/lib" "$image/etc"
# A module stripped of what it was debugged with, in lib/ or a folder of it.
install_module() {
    "${CROSS_COMPILE:-arm-linux-gnueabihf-}strip" -g -o "$image/lib/${2:-}$(basename "$1")" "$1"
}
# Builds what it is given as target-module.sh does; the path that it printed last.
build() {
    KDIR=$kernel/headers STRICT=1 GUARDED=${GUARDED:-} scripts/target-module.sh "$@" >"$work/module.log" || {
        cat "$work/module.log" >&2
        exit 1
    }
    tail -n 1 "$work/module.log"
}
module=$(build)
install_module "$module"
case " $* " in
*" target-tests "* | *" target-hostile "*)
    folder=$(build tests/target/modules)
    for module in "$folder"/*/*.ko; do
        install_module "$module"
    done
    ;;
esac
# Beside the default module the guarded one, with the kernel code that was built against it.
case " $* " in
*" target-hostile "*)
    GUARDED=1
    mkdir "$image/lib/guarded"
    module=$(build)
    install_module "$module" guarded/
    folder=$(build tests/target/modules)
    install_module "$folder/peer/velmora_mm_peer.ko" guarded/
    ;;
esac

for program in target-init "$@"; do
    "${CROSS_COMPILE:-arm-linux-gnueabihf-}strip" -o "$image/bin/$program" "$work/bin/$program"
done
mv "$image/bin/target-init" "$image/init"
cp "$kernel/busybox" packaging/velmora-mm-load "$image/bin/"
printf 'root:x:0:\nvelmora:x:77:\n' >"$image/etc/group"
board_values >"$image/etc/board"

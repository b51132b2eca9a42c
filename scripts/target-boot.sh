#!/bin/sh
# Boots the emulated controller with an initial RAM file system and shows its console.
#   [BOARD=NAME] scripts/target-boot.sh INITRAMFS LOG      exit status 0 when the controller says that it finished well
# The kernel's own messages come on the console above level "error" only; LOG keeps everything shown.
#   TARGET_SECONDS   how long it may take; default 240
#   TARGET_MEMORY    memory in MiB other than the board's
#   TARGET_CPUS      processors other than the board's
#   TARGET_COMMAND_LINE  more for the kernel's command line
#   TARGET_INITRD    the initial RAM disk's address, other than the board's
set -eu
cd "$(dirname "$0")/.."
. scripts/target-board.sh
initramfs=$1
log=$2
work=build/target
seconds=${TARGET_SECONDS:-240}
memory=${TARGET_MEMORY:-$((RAM_BYTES >> 20))}
overlay=kernel/linux/boot/velmora-mm-area.dtso

kernel=$(scripts/target-kernel.sh)
if [ -n "${TARGET_CPUS:-}" ]; then
    QEMU=$(echo "$QEMU" | sed "s/-smp [0-9]*/-smp $TARGET_CPUS/")
fi
trees=$work/$board${TARGET_CPUS:+-$TARGET_CPUS} # two boots at a time have one each

# The board's device tree with the area in it: the example overlay with this board's numbers.
device_tree() {
    area=$(printf %08x "$((AREA_PHYS))")
    bytes=$(printf 0x%08x "$((AREA_BYTES))")
    source=$DEVICE_TREE
    if [ "$source" = qemu ]; then
        source=$trees-plain.dtb
        # shellcheck disable=SC2086
        qemu-system-arm $QEMU -machine dumpdtb="$source" -m "$((RAM_BYTES >> 20))" -nodefaults -nographic >"$trees-dtb.log" 2>&1 || {
            cat "$trees-dtb.log" >&2
            exit 1
        }
    fi
    cells=$(fdtget "$source" / '#address-cells')$(fdtget "$source" / '#size-cells')
    sed -e "s/50000000/$area/g; s/0x09000000/$bytes/" "$overlay" >"$trees-area.dtso"
    if [ "$cells" = 11 ]; then # 32-bit addresses
        sed -i -e 's/cells = <2>/cells = <1>/; s/0x0 \(0x[0-9a-f]*\) 0x0/\1/' "$trees-area.dtso"
    fi
    dtc -q -@ -I dts -O dtb -o "$trees-area.dtbo" "$trees-area.dtso"
    fdtoverlay -i "$source" -o "$trees.dtb" "$trees-area.dtbo"
}

set -- -m "$memory" -nodefaults -nographic -no-reboot -serial stdio -kernel "$kernel/vmlinuz"
if [ "$DEVICE_TREE" != none ]; then
    device_tree
    set -- "$@" -dtb "$trees.dtb"
fi
line="console=$CONSOLE loglevel=3 log_buf_len=8M printk.devkmsg=on rcupdate.rcu_cpu_stall_timeout=120 watchdog_thresh=60"
line="$line panic=1 oops=panic rdinit=/init $COMMAND_LINE ${TARGET_COMMAND_LINE:-}"
initrd=${TARGET_INITRD:-$INITRD_ADDRESS}
if [ -n "$initrd" ]; then
    set -- "$@" -device "loader,file=$initramfs,addr=$initrd,force-raw=on"
    line="$line initrd=$initrd,$(stat -c %s "$initramfs")"
else
    set -- "$@" -initrd "$initramfs"
fi

# shellcheck disable=SC2086
QEMU_AUDIO_DRV=none timeout --kill-after=10 "$seconds" qemu-system-arm $QEMU "$@" -append "$line" </dev/null 2>&1 | tr -d '\r' | tee "$log"
if grep -E 'Oops|BUG:|WARNING:|Unable to handle|scheduling while atomic|lockdep|Kernel panic' "$log" >&2; then
    echo "target-boot.sh: the kernel reported trouble" >&2
    exit 1
fi
grep -q '^CONTROLLER finished$' "$log" && exit 0
if grep -q '^CONTROLLER failed$' "$log"; then
    echo "target-boot.sh: something failed on the controller: see the lines above that begin with FAIL" >&2
else
    echo "target-boot.sh: the controller did not finish within $seconds seconds" >&2
fi
exit 1

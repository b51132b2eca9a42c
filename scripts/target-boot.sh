#!/bin/sh
# Boots the emulated controller with an initial RAM file system and shows its console.
#   scripts/target-boot.sh INITRAMFS LOG      exit status 0 when the controller says that it finished well
# The kernel's own messages come on the console above level "error" only; LOG keeps everything shown.
set -eu
cd "$(dirname "$0")/.."
initramfs=$1
log=$2
work=build/target
seconds=${TARGET_SECONDS:-240}
memory=${TARGET_MEMORY:-512} # MiB; the area that is reserved ends at 400

kernel=$(scripts/target-kernel.sh)
if [ ! -e "$work/board.dtb" ] || [ kernel/linux/velmora-mm-area.dtso -nt "$work/board.dtb" ]; then
    qemu-system-arm -M virt,dumpdtb="$work/virt.dtb" -cpu cortex-a15 -m 512 -smp 2 -nodefaults -nographic >"$work/dtb.log" 2>&1 || {
        cat "$work/dtb.log" >&2
        exit 1
    }
    dtc -q -@ -I dts -O dtb -o "$work/area.dtbo" kernel/linux/velmora-mm-area.dtso
    fdtoverlay -i "$work/virt.dtb" -o "$work/board.dtb.new" "$work/area.dtbo"
    mv "$work/board.dtb.new" "$work/board.dtb"
fi

timeout --kill-after=10 "$seconds" qemu-system-arm -M virt -cpu cortex-a15 -m "$memory" -smp 2 -nodefaults -nographic -no-reboot \
    -kernel "$kernel/vmlinuz" -dtb "$work/board.dtb" -initrd "$initramfs" -serial stdio \
    -append "console=ttyAMA0 loglevel=3 log_buf_len=8M printk.devkmsg=on rcupdate.rcu_cpu_stall_timeout=120 watchdog_thresh=60 panic=-1 oops=panic rdinit=/init" </dev/null 2>&1 |
    tr -d '\r' | tee "$log"
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

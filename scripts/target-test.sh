#!/bin/sh
# Runs the module's tests on the emulated controller. The programs of kernel/linux/target.mk and the simulated
# controller's build/bin/velmora-mm must be there.
#   [TARGET_SUITE=bookworm-backports] SEEDS="1 2 3" COMMANDS=700 scripts/target-test.sh
set -eu
cd "$(dirname "$0")/.."
work=build/target
strip=${CROSS_COMPILE:-arm-linux-gnueabihf-}strip

unset KDIR
kernel=$(scripts/target-kernel.sh)
mkdir -p "$work/image/lib" "$work/image/sessions"
# Builds what it is given as target-module.sh does; the path that it printed last.
build() {
    STRICT=1 scripts/target-module.sh "$@" >"$work/module.log" || {
        cat "$work/module.log" >&2
        exit 1
    }
    tail -n 1 "$work/module.log"
}
module=$(build)
"$strip" -g -o "$work/image/lib/velmora_mm.ko" "$module"
for name in peer pte stub; do
    folder=$(build "tests/target/$name")
    "$strip" -g -o "$work/image/lib/velmora_mm_$name.ko" "$folder/velmora_mm_$name.ko"
done

# What an installed system has: a shell, the load script, the module for modprobe with its configuration.
cp "$kernel/busybox" "$work/image/bin/busybox"
cp packaging/velmora-mm-load "$work/image/bin/"
mkdir -p "$work/image/etc"
printf 'root:x:0:\nvelmora:x:77:\n' >"$work/image/etc/group"
area=$(sed -n 's/.*kAreaText\[\] = "\(.*\)".*/\1/p' tests/target/board.hpp)
sed "s/=.*/=$area/" packaging/velmora-mm.conf >"$work/image/etc/velmora-mm.conf"
echo "velmora_mm.ko:" >"$work/image/etc/modules.dep"
release=$(cat "$kernel/release")

# The same scripts, answered by the simulated controller.
rm -f "$work"/image/sessions/*
for script in tests/target/sessions/*.txt; do
    name=$(basename "$script" .txt)
    cp "$script" "$work/image/sessions/"
    build/bin/velmora-mm script "$script" >"$work/image/sessions/$name.answers"
done
for seed in ${SEEDS:-1 2 3}; do
    python3 tests/target/random_session.py build/bin/velmora-mm "$seed" "${COMMANDS:-700}" \
        "$work/image/sessions/random-$seed.txt" "$work/image/sessions/random-$seed.answers"
done

{
    echo /bin/busybox --install -s /bin
    echo /bin/target-tests
    for script in "$work"/image/sessions/*.txt; do
        name=/sessions/$(basename "$script" .txt)
        echo "/bin/target-session $name.txt $name.answers"
    done
    echo "/bin/target-tests kernel_log" # names no test: only the log is looked through
} >"$work/run"
python3 tests/target/make_initramfs.py "$work/tests.cpio" /init="$work/image/init" /bin/="$work/image/bin" /lib/="$work/image/lib" \
    /sessions/="$work/image/sessions" /etc/run="$work/run" /etc/group="$work/image/etc/group" \
    /etc/modprobe.d/velmora-mm.conf="$work/image/etc/velmora-mm.conf" "/lib/modules/$release/modules.dep=$work/image/etc/modules.dep" \
    "/lib/modules/$release/velmora_mm.ko=$work/image/lib/velmora_mm.ko"
scripts/target-boot.sh "$work/tests.cpio" "$work/tests.log"
echo "target tests: $(grep -c '^PASS' "$work/tests.log") passed"

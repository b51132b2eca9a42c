#!/bin/sh
# Runs the module's tests on the emulated controller. The preset "target" and the simulated controller's
# build/bin/velmora-mm must have been built.
#   [BOARD=NAME] [TARGET_SUITE=bookworm-backports] SEEDS="1 2 3:4000" COMMANDS=700 scripts/target-test.sh
set -eu
cd "$(dirname "$0")/.."
. scripts/target-board.sh
work=build/target
image=$work/image

scripts/target-image.sh "$image" target-tests target-session velmora-mm

# What an installed system has beside it: the module for modprobe with its configuration.
release=$(cat "$(scripts/target-kernel.sh)/release")
modules=$image/lib/modules/$release
mkdir -p "$modules" "$image/etc/modprobe.d"
sed "s/=.*/=$AREA_TEXT/" packaging/velmora-mm.conf >"$image/etc/modprobe.d/velmora-mm.conf"
echo "velmora_mm.ko:" >"$modules/modules.dep"
cp "$image/lib/velmora_mm.ko" "$modules/"

# The same scripts, answered by the simulated controller.
mkdir "$image/sessions"
for script in tests/target/sessions/*.txt; do
    name=$(basename "$script" .txt)
    cp "$script" "$image/sessions/"
    build/bin/velmora-mm script "$script" >"$image/sessions/$name.answers"
done
# Seed 11 has a piece of the heap that is shorter than a block, seed 14 a refused start of the library.
for seed in ${SEEDS:-1 2 3 4 5 6 7 8 11:3000 14:4000}; do
    commands=${seed#*:}
    [ "$commands" != "$seed" ] || commands=${COMMANDS:-700}
    seed=${seed%%:*}
    python3 tests/target/random_session.py build/bin/velmora-mm "$seed" "$commands" \
        "$image/sessions/random-$seed.txt" "$image/sessions/random-$seed.answers"
done

# The tool's commands as a user meets them: the same check as on the simulated controller.
mkdir -p "$image/check/tool" "$image/check/support"
device_checks="check_commands.sh check_verify.sh check_map_device.sh check_record_device.sh"
for check in $device_checks; do
    cp "tests/tool/$check" "$image/check/tool/"
done
cp tests/support/device.sh tests/support/program.sh "$image/check/support/"

# Boots with the lines that stand on standard input and runs them; shows the console and keeps it in build/target/NAME.log.
run() {
    {
        echo /bin/busybox --install -s /bin
        cat
        echo "/bin/target-tests kernel_log" # names no test: only the log is looked through
    } >"$image/etc/run"
    python3 tests/target/make_initramfs.py "$work/$1.cpio" /="$image"
    scripts/target-boot.sh "$work/$1.cpio" "$work/$1.log"
}
session_lines() {
    for name in "$@"; do
        echo "/bin/target-session /sessions/$name.txt /sessions/$name.answers"
    done
}
{
    echo /bin/target-tests
    for script in "$image"/sessions/*.txt; do
        session_lines "$(basename "$script" .txt)"
    done
    echo "/bin/velmora-mm-load $AREA_TEXT /lib/velmora_mm.ko"
    for check in $device_checks; do
        echo "/bin/sh /check/tool/$check /dev/Velmora_MM /bin/velmora-mm"
    done
    echo "/bin/velmora-mm-load --unload"
} | run tests

# Once more with the system calls that the oldest kernels have, a log without times, an initial RAM disk that the
# command line names, and a restart at the end.
{
    board_values | sed 's/^AT_END=.*/AT_END=restart/'
    echo OLD_CALLS=yes
} >"$image/etc/board"
export TARGET_COMMAND_LINE=printk.time=0 TARGET_INITRD="${INITRD_ADDRESS:-$((PHYS_OFFSET + RAM_BYTES - 0x4000000))}"
{
    echo /bin/target-tests load_ unload_ log_ command_ mapping_ stack_
    session_lines mapping-and-memory print-run refusals
} | run old-calls
echo "target tests: $(cat "$work/tests.log" "$work/old-calls.log" | grep -c '^PASS') passed"

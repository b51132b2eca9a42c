#!/bin/sh
# Hostile processes against the guarded module, processes that keep the rules against the default one, on the emulated controller
# with one processor and with four, both at a time. The preset "target" must have been built.
#   [BOARD=NAME] [TARGET_SUITE=bookworm-backports] scripts/target-hostile.sh SECONDS [SEED]
# SECONDS: of the hostile processes; those that keep the rules work for a quarter of it. SEED: default the time.
set -eu
cd "$(dirname "$0")/.."
. scripts/target-board.sh
work=build/target
image=$work/image-hostile
seconds=${1:-}
seed=${2:-$(date +%s)}

case $seconds in
'' | *[!0-9]* | 0* | ??????*) seconds= ;;
esac
case $seed in
'' | *[!0-9]* | 0?* | ???????????*) seconds= ;;
esac
if [ -z "$seconds" ]; then
    echo "target-hostile.sh: SECONDS='${1:-}' must be a whole number from 1 to 99999, SEED='$seed' one below 10000000000" >&2
    exit 2
fi

GUARDED='' scripts/target-image.sh "$image" target-hostile

# The emulated controller is slower than the clock when the machine is busy.
boot() {
    mkdir -p "$work/hostile-$1"
    {
        echo "/bin/target-hostile behaved /lib/velmora_mm.ko $(((seconds + 3) / 4)) $seed $1"
        echo "/bin/target-hostile guarded /lib/guarded/velmora_mm.ko $seconds $seed $1"
    } >"$work/hostile-$1/run"
    python3 tests/target/make_initramfs.py "$work/hostile-$1.cpio" /="$image" /etc/run="$work/hostile-$1/run"
    TARGET_CPUS=$1 TARGET_SECONDS=$((seconds * 3 + 240)) scripts/target-boot.sh "$work/hostile-$1.cpio" "$work/hostile-$1.log"
}

echo "Hostile processes for $seconds seconds, seed $seed, on one processor and on four"
scripts/target-kernel.sh >/dev/null
status=0
boot 1 >"$work/hostile-1.out" 2>&1 &
one=$!
boot 4 >"$work/hostile-4.out" 2>&1 || status=1
wait "$one" || status=1
for processors in 1 4; do
    echo "Processors: $processors"
    cat "$work/hostile-$processors.out"
done
[ "$status" -eq 0 ] || {
    echo "target-hostile.sh: failed; again with: make test-hostile SECONDS=$seconds SEED=$seed" >&2
    exit 1
}
echo "hostile processes: nothing crashed, nothing was lost"

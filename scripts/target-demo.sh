#!/bin/sh
# Prints a document on the emulated controller, through the real module: the pages are drawn here, travel there as
# raster files, and the copies that come out are compared there, by the job itself and by checksums taken here.
#   [BOARD=NAME] [DOC=file.pdf] [COPIES=3] [DPI=50] scripts/target-demo.sh
set -eu
cd "$(dirname "$0")/.."
. scripts/target-board.sh
work=build/target
copies=${COPIES:-3}
demo=$work/demo
image=$work/image-demo

scripts/target-image.sh "$image" print-job

# Ghostscript draws the pages; the job on the simulated controller does that on its way.
echo "The job on the simulated controller, for its drawn pages:"
build/bin/print-job ${DOC:+--document "$DOC"} --dpi "${DPI:-$DEMO_DPI}" --copies 1 --output "$demo" >"$work/demo-simulated.log" || {
    cat "$work/demo-simulated.log" >&2
    exit 1
}
tail -n 1 "$work/demo-simulated.log"
pages=$(find "$demo/drawn" -type f | wc -l)
kilobytes=$(du -sk "$demo/drawn" | cut -f1)
if [ $((kilobytes * (copies + 1))) -gt "$DEMO_FILES" ]; then
    echo "target-demo.sh: $pages pages of $((kilobytes / 1024)) MiB in $copies copies are more than the emulated controller's file" \
        "system holds; a lower resolution (TARGET_DPI) or fewer COPIES will do" >&2
    exit 1
fi

: >"$image/etc/expected"
copy=1
while [ "$copy" -le "$copies" ]; do
    (cd "$demo/drawn" && md5sum ./*) | sed "s# \./# copy-$copy/#" >>"$image/etc/expected"
    copy=$((copy + 1))
done
cat >"$image/etc/verify" <<'END'
cd /tmp/out || exit 1
[ "$(find . -type f | wc -l)" -eq "$(wc -l </etc/expected)" ] || { echo "not as many pages as expected"; exit 1; }
md5sum -c -s /etc/expected || exit 1
dmesg >/tmp/after.log
if grep -E 'Oops|BUG:|WARNING:|Unable to handle|scheduling while atomic|lockdep:' /tmp/before.log /tmp/after.log; then
    echo "the kernel reported trouble"
    exit 1
fi
echo "Checksums of $(wc -l </etc/expected) pages are those of the pages that were drawn"
END
cat >"$image/etc/load" <<END
velmora-mm-load $AREA_TEXT /lib/velmora_mm.ko || exit 1
dmesg | tail -n 2
dmesg -c >/tmp/before.log # the job shows what it finds in the kernel log
END
{
    echo "/bin/busybox --install -s /bin"
    echo "/bin/sh /etc/load"
    echo "/bin/print-job --device /dev/Velmora_MM --rasters /rasters --copies $copies --output /tmp/out"
    echo "/bin/sh /etc/verify"
    echo "/bin/velmora-mm-load --unload"
} >"$image/etc/run"
python3 tests/target/make_initramfs.py "$work/demo.cpio" /="$image" /rasters/="$demo/drawn"
gzip -1 -c "$work/demo.cpio" >"$work/demo.cpio.gz"
rm "$work/demo.cpio"

echo "Booting the emulated controller with $pages pages"
TARGET_MEMORY=$DEMO_MEMORY scripts/target-boot.sh "$work/demo.cpio.gz" "$work/demo.log"
echo "target-demo: all $pages pages of all $copies copies are identical"

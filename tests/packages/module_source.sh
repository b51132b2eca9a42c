#!/bin/sh
# The packaged module source is built by DKMS for the emulated controller's kernel.
set -eu
cd "$(dirname "$0")/../.."
work=$(realpath -m build/test-packages/dkms)
rm -rf "$work"
mkdir -p "$work/tree" "$work/installed"

fail() {
    echo "module_source.sh: $1" >&2
    exit 1
}

kernel=$(scripts/target-kernel.sh)
release=$(cat "$kernel/release")
dpkg -x "$(ls build/packages/velmora-mm-dkms_*_all.deb)" "$work/package"
source=$(echo "$work"/package/usr/src/velmora-mm-*)
version=${source##*-}
run_dkms() {
    ARCH=arm CROSS_COMPILE=arm-linux-gnueabihf- dkms "$@" -m velmora-mm -v "$version" --dkmstree "$work/tree" \
        --sourcetree "$work/package/usr/src" --installtree "$work/installed" >"$work/log" 2>&1 || {
        cat "$work/log" >&2
        find "$work/tree" -name make.log -exec cat {} + >&2
        fail "dkms $* failed"
    }
}
run_dkms add
run_dkms build -k "$release" -a armv7l --kernelsourcedir "$(realpath "$kernel/headers")"
module=$(find "$work/tree" -path "*/$release/armv7l/module/velmora_mm.ko")
[ -n "$module" ] || fail "DKMS built no module"
readelf -h "$module" | grep -q 'Machine:.*ARM' || fail "$module is no module for ARM"
echo "Module source by DKMS for $release: passed"

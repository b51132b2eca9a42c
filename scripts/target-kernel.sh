#!/bin/sh
# Brings Debian's ARMv7 kernel, its headers and a static shell into build/target/, as plain folders: nothing is installed
# and the machine's own package lists are left alone.
#   scripts/target-kernel.sh         prepares, and prints nothing when all is there
#   build/target/kernel/vmlinuz      the kernel             build/target/kernel/headers   KDIR for the module
#   build/target/kernel/release      its release name  build/target/kernel/busybox   a shell for it
set -eu
cd "$(dirname "$0")/.."

work=$PWD/build/target
[ -e "$work/kernel/busybox" ] && exit 0

echo "Fetching Debian's ARMv7 kernel" >&2
mkdir -p "$work/apt/lists/partial" "$work/apt/archives/partial" "$work/packages"
apt() {
    command=$1
    shift
    "$command" -qq -o APT::Architectures::="$(dpkg --print-architecture)" -o APT::Architectures::=armhf \
        -o Dir::State::Lists="$work/apt/lists" -o Dir::Cache="$work/apt" -o APT::Sandbox::User= \
        -o Acquire::Languages=none "$@"
}

# An index that cannot be fetched, a foreign one above all, is no reason to stop: the packages may still resolve.
apt apt-get update >"$work/apt/update.log" 2>&1 || true
image=$(apt apt-cache depends linux-image-armmp:armhf | sed -n 's/.*Depends: \(linux-image-[^:]*\).*/\1/p' | head -n 1)
[ -n "$image" ] || {
    cat "$work/apt/update.log" >&2
    echo "target-kernel.sh: no package linux-image-armmp for armhf in the package lists" >&2
    exit 1
}
release=${image#linux-image-}
series=$(echo "$release" | sed 's/^\([0-9]*\.[0-9]*\).*/\1/')
common=linux-headers-${release%-armmp}-common

cd "$work/packages"
apt apt-get download "$image:armhf" "linux-headers-$release:armhf" "$common" "linux-kbuild-$series" busybox-static:armhf
rm -rf "$work/root" "$work/kernel"
mkdir -p "$work/root" "$work/kernel"
for package in ./*.deb; do
    dpkg -x "$package" "$work/root"
done
cd "$work/root"

# The headers name each other by the paths of an installed system.
headers=usr/src/linux-headers-$release
sed -i "s#/usr/src/#$work/root/usr/src/#" "$headers/Makefile"
for link in $(find "$headers" "usr/src/$common" -maxdepth 1 -type l); do
    to=$(readlink "$link")
    case $to in
    /*) ln -sfn "$work/root$to" "$link" ;;
    esac
done

# Modules of the kernel's own are not needed, and are most of the bytes.
rm -rf lib/modules/*/kernel usr/share/doc
ln -s "$work/root/boot/vmlinuz-$release" "$work/kernel/vmlinuz"
ln -s "$work/root/$headers" "$work/kernel/headers"
echo "$release" >"$work/kernel/release"
rm -rf "$work/apt" "$work/packages"
ln -s "$work/root/bin/busybox" "$work/kernel/busybox" # the last: all is there

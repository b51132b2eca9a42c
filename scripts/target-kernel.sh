#!/bin/sh
# Brings Debian's ARMv7 kernel, its headers and a static shell into build/target/, as plain folders: nothing is installed
# and the machine's own package lists are left alone.
#   [TARGET_SUITE=bookworm-backports] scripts/target-kernel.sh         prints the folder that has
#       vmlinuz     the kernel                  headers     KDIR for the module
#       release     its release name            busybox     a shell for it
# The packages are those of the machine's own lists, or of the Debian suite that is named; the folder is
# build/target/kernel or build/target/kernel-SUITE.
#   KERNEL=image KDIR=tree scripts/target-kernel.sh         the same for another kernel and the tree that it was built in:
# build/target/kernel-given, with Debian's shell, or BUSYBOX=program.
set -eu
cd "$(dirname "$0")/.."
. scripts/target-board.sh

work=$PWD/build/target
if [ -n "${KERNEL:-}${KDIR:-}" ]; then
    if [ ! -f "${KERNEL:-}" ] || [ ! -f "${KDIR:-}/include/config/kernel.release" ]; then
        echo "target-kernel.sh: KERNEL=${KERNEL:-} must be a kernel's image and KDIR=${KDIR:-} the tree that it was built in" >&2
        exit 2
    fi
    kernel=$work/kernel-given
    shell=${BUSYBOX:-$(KERNEL='' KDIR='' BOARD=virt scripts/target-kernel.sh)/busybox}
    mkdir -p "$kernel"
    ln -sfn "$(realpath "$KERNEL")" "$kernel/vmlinuz"
    ln -sfn "$(realpath "$KDIR")" "$kernel/headers"
    ln -sfn "$(realpath "$shell")" "$kernel/busybox"
    cp "$KDIR/include/config/kernel.release" "$kernel/release"
    echo "$kernel"
    exit 0
fi
if [ "$KERNEL_IS" = given ]; then
    echo "target-kernel.sh: the board $board needs KERNEL=image and KDIR=tree: there is no such kernel to be fetched" >&2
    exit 2
fi
suite=${TARGET_SUITE:-}
kernel=$work/kernel${suite:+-$suite}
root=$work/root${suite:+-$suite}
[ -e "$kernel/busybox" ] && {
    echo "$kernel"
    exit 0
}

echo "Fetching Debian's ARMv7 kernel${suite:+ of $suite}" >&2
rm -rf "$work/apt" "$work/packages"
mkdir -p "$work/apt/lists/partial" "$work/apt/archives/partial" "$work/packages"
# The lists of the machine, or those of one suite; a backports suite has not all that is needed, the one below it has.
if [ -n "$suite" ]; then
    {
        printf 'Types: deb\nURIs: http://deb.debian.org/debian\nComponents: main\n'
        printf 'Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg\nSuites:'
        printf '%s\n' "${suite%-backports}" "$suite" | sort -u | sed 's/^/ /'
    } >"$work/apt/suite.sources"
fi
apt() {
    command=$1
    shift
    if [ -n "$suite" ]; then
        set -- -o Dir::Etc::sourcelist="$work/apt/suite.sources" -o Dir::Etc::sourceparts=- -o APT::Default-Release="$suite" "$@"
    fi
    "$command" -qq -o APT::Architectures::="$(dpkg --print-architecture)" -o APT::Architectures::=armhf \
        -o Dir::State::Lists="$work/apt/lists" -o Dir::Cache="$work/apt" -o APT::Sandbox::User= \
        -o Acquire::Languages=none "$@"
}

# An index that cannot be fetched, a foreign one above all, is no reason to stop: the packages may still resolve.
apt apt-get update >"$work/apt/update.log" 2>&1 || true

# What a package depends on, of the names that begin with a text.
dependency() {
    apt apt-cache depends "$1" | sed -n "s/^ *|*Depends: <*\($2[^:>]*\).*/\1/p" | head -n 1
}
image=$(dependency linux-image-armmp:armhf linux-image-)
[ -n "$image" ] || {
    cat "$work/apt/update.log" >&2
    echo "target-kernel.sh: no package linux-image-armmp for armhf in the package lists" >&2
    exit 1
}
release=${image#linux-image-}
common=$(dependency "linux-headers-$release:armhf" linux-headers-)
kbuild=$(dependency "linux-headers-$release:armhf" linux-kbuild-)

cd "$work/packages"
apt apt-get download "$image:armhf" "linux-headers-$release:armhf" "$common" "$kbuild" busybox-static:armhf >&2
rm -rf "$root" "$kernel"
mkdir -p "$root" "$kernel"
for package in ./*.deb; do
    dpkg -x "$package" "$root"
done
cd "$root"

# The headers name each other by the paths of an installed system.
headers=usr/src/linux-headers-$release
sed -i "s#/usr/src/#$root/usr/src/#" "$headers/Makefile"
find "$headers" "usr/src/$common" -maxdepth 1 -type l | while IFS= read -r link; do
    to=$(readlink "$link")
    case $to in
    /*) ln -sfn "$root$to" "$link" ;;
    esac
done

# Modules of the kernel's own are not needed, and are most of the bytes.
rm -rf lib/modules/*/kernel usr/lib/modules/*/kernel usr/share/doc
ln -s "$root/boot/vmlinuz-$release" "$kernel/vmlinuz"
ln -s "$root/$headers" "$kernel/headers"
echo "$release" >"$kernel/release"
rm -rf "$work/apt" "$work/packages"
ln -s "$(find "$root" -path '*/bin/busybox')" "$kernel/busybox" # the last: all is there
echo "$kernel"

#!/bin/sh
# Installs the libraries of both word sizes, their headers and packages for CMake and pkg-config, the programs, manual pages and
# completion; or takes away what it installed.
#   [PREFIX=/usr/local] [DESTDIR=] scripts/install.sh [--remove]
# PREFIX is where they will be used, DESTDIR a folder that stands in for / meanwhile. What was installed, and which folders were
# made for it, stands in PREFIX/share/velmora-mm/installed.
set -eu
called_from=$PWD
cd "$(dirname "$0")/.."

fail() {
    echo "install.sh: $1" >&2
    exit 1
}

prefix=${PREFIX:-/usr/local}
case $prefix in
/*) prefix=$(realpath -ms "$prefix") ;;
*) fail "PREFIX=$prefix is not absolute" ;;
esac
destination=${DESTDIR:-}
[ -z "$destination" ] || destination=$(cd "$called_from" && realpath -m "$destination")
root=$destination$prefix
list=$root/share/velmora-mm/installed

case ${1:-} in
--remove)
    [ -e "$list" ] || fail "nothing is installed in $root: it has no share/velmora-mm/installed"
    # Folders come last, the inner ones first; one that others use by now stays.
    sort -r "$list" | while IFS= read -r name; do
        case $name in
        */) ;;
        *) rm -f "$destination$name" || fail "cannot remove $destination$name" ;;
        esac
    done
    folders=$(grep '/$' "$list" | sort -r)
    rm -f "$list" || fail "cannot remove $list"
    echo "$folders" | while IFS= read -r name; do
        rmdir "$destination$name" 2>/dev/null || true
    done
    exit 0
    ;;
"") ;;
*) fail "unknown argument '$1'" ;;
esac

# Before anything is built: the first folder on the way up that is there.
above=$root
while [ ! -e "$above" ] && [ ! -L "$above" ]; do
    above=$(dirname "$above")
done
if [ ! -d "$above" ]; then
    fail "cannot install in $root: $above is no folder"
elif [ ! -w "$above" ]; then
    fail "cannot install in $root: no permission to write in $above"
fi
scripts/setup.sh build

machine=$(dpkg --print-architecture)
case $machine in
amd64) word_sizes="x86_64 x86" ;;
i386) word_sizes=x86 ;;
*) fail "the simulated controller is a program for amd64 and i386, and this machine is $machine" ;;
esac

# Libraries of the machine's own word size lie where its programs look for them, those of the other one in Debian's folder.
for word_size in $word_sizes; do
    folder=build/install/$word_size
    set -- -DCMAKE_INSTALL_LIBDIR=lib/i386-linux-gnu
    if [ "$word_size" = "${word_sizes%% *}" ]; then
        set -- -UCMAKE_INSTALL_LIBDIR
    fi
    cmake -S . -B "$folder" -G Ninja --toolchain "cmake/$word_size.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DVELMORA_BUILD_TESTS=OFF -DCMAKE_INSTALL_PREFIX="$prefix" "$@" >"$folder.log" 2>&1 || {
        cat "$folder.log" >&2
        fail "cannot configure $folder"
    }
    cmake --build "$folder" --target velmora
done

mkdir -p build/install
new=$(mktemp)
trap 'rm -f "$new"' EXIT
[ ! -e "$list" ] || cat "$list" >"$new"
for word_size in $word_sizes; do
    DESTDIR=$destination cmake --install "build/install/$word_size" --strip >/dev/null
done

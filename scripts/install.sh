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

# Programs find a new library by the dynamic linker's list, where that covers its folder.
tell_linker() {
    if [ -z "$destination" ] && [ "$(id -u)" -eq 0 ]; then
        /sbin/ldconfig
    fi
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
    tell_linker
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
elif ! probe=$(mktemp -d "$above/.velmora-XXXXXX" 2>/dev/null); then
    fail "cannot install in $root: nothing can be written in $above"
fi
rmdir "$probe"
scripts/setup.sh build

machine=$(dpkg --print-architecture)
case $machine in
amd64) word_sizes="x86_64 x86" ;;
i386) word_sizes=x86 ;;
*) fail "the simulated controller is a program for amd64 and i386, and this machine is $machine" ;;
esac

# Libraries of the machine's own word size lie where its programs look for them, those of the other one in Debian's folder.
mkdir -p build/install
for word_size in $word_sizes; do
    folder=build/install/$word_size
    set -- -DCMAKE_INSTALL_LIBDIR=lib/i386-linux-gnu
    if [ "$word_size" = "${word_sizes%% *}" ]; then
        set -- -UCMAKE_INSTALL_LIBDIR
    fi
    # Compiled as the presets compile, so that what they have is not compiled again.
    cmake -S . -B "$folder" -G Ninja --toolchain "cmake/$word_size.cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        "-DCMAKE_C_COMPILER_LAUNCHER=$PWD/scripts/compiler-cache.sh" "-DCMAKE_CXX_COMPILER_LAUNCHER=$PWD/scripts/compiler-cache.sh" \
        -DVELMORA_BUILD_TESTS=OFF -DCMAKE_INSTALL_PREFIX="$prefix" "$@" >"$folder.log" 2>&1 || {
        cat "$folder.log" >&2
        fail "cannot configure $folder"
    }
    cmake --build "$folder" --target velmora
done

# The list comes first, so that an installation that breaks off can be removed. It keeps what an earlier one has put there.
umask 022
staging=$PWD/build/install/staging
rm -rf "$staging"
for word_size in $word_sizes; do
    DESTDIR=$staging cmake --install "build/install/$word_size" --strip >/dev/null
done
folder=$(dirname "$list")
new=$(cd "$staging" && find . ! -type d | sed 's/^.//'
    cd "$staging" && { find . -type d; echo ".${folder#"$destination"}"; } | sed 's/^.//' | while IFS= read -r name; do
        [ -d "$destination$name" ] || echo "$name/"
    done)
mkdir -p "$folder" || fail "cannot make the folder $folder"
[ ! -e "$list" ] || new=$(cat "$list" && echo "$new")
echo "$new" | sort -u >"$list" || fail "cannot write $list"
for word_size in $word_sizes; do
    DESTDIR=$destination cmake --install "build/install/$word_size" --strip >"build/install/$word_size.log" 2>&1 || {
        cat "build/install/$word_size.log" >&2
        fail "cannot install in $root"
    }
done
tell_linker
echo "Installed in $root"

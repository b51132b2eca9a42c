#!/bin/sh
# make install and make uninstall: what is refused, that programs of both word sizes outside the tree use the copy, and that
# nothing stays.
set -eu
cd "$(dirname "$0")/../.."
work=$(realpath -m build/test-packages/installed)
rm -rf "$work"
mkdir -p "$work"

fail() {
    echo "installed_copy.sh: $1" >&2
    exit 1
}
refused() { # SENTENCE COMMAND...
    sentence=$1
    shift
    ! "$@" >"$work/out" 2>&1 || fail "$* is not refused"
    [ "$(grep -c . "$work/out")" -eq 1 ] || fail "$* says more than a sentence: $(cat "$work/out")"
    grep -q -- "$sentence" "$work/out" || fail "$* says: $(cat "$work/out")"
}

refused 'PREFIX=usr is not absolute' env PREFIX=usr scripts/install.sh
: >"$work/file"
refused "cannot install in $work/file/usr: $work/file is no folder" env PREFIX="$work/file/usr" scripts/install.sh
refused "nothing is installed in $work/nowhere" env PREFIX="$work/nowhere" scripts/install.sh --remove
refused 'cannot install in /proc/usr: nothing can be written in /proc' env PREFIX=/proc/usr scripts/install.sh

# A folder that was there, and something in it, stay.
mkdir -p "$work/copy/lib/pkgconfig"
: >"$work/copy/lib/pkgconfig/other.pc"
find "$work/copy" | sort >"$work/before"
make install PREFIX="$work/copy" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
make install PREFIX="$work/copy" >"$work/log" 2>&1 || fail "twice: $(cat "$work/log")"

consumer=tests/packages/consumer
tests/packages/use.sh $consumer "$work/native" "$work/copy" "$work/copy/lib"
if [ "$(dpkg --print-architecture)" = amd64 ]; then
    tests/packages/use.sh $consumer "$work/32" "$work/copy" "$work/copy/lib/i386-linux-gnu" -m32 -idirafter /usr/include/x86_64-linux-gnu
fi
sh tests/sessions/check.sh tests/sessions/blocks-and-owners.txt "$work/copy/bin/velmora-mm" ||
    fail "the installed velmora-mm answers otherwise"

# The library offers public names only.
nm -DC --defined-only "$work/copy/lib/libvelmora.so" | sed 's/^[0-9a-f]* . //' >"$work/names"
! grep -E 'socket_client|protocol::|openSocket|^std::' "$work/names" || fail "libvelmora.so offers names of its own business"
grep -q '^typeinfo for velmora::Error@' "$work/names" || fail "libvelmora.so keeps its exceptions' types to itself"

make uninstall PREFIX="$work/copy" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
find "$work/copy" | sort | diff "$work/before" - || fail "make uninstall leaves something, or takes what is not its own"

mkdir "$work/stage"
make install PREFIX=/usr DESTDIR="$work/stage" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
grep -q '^prefix=/usr$' "$work"/stage/usr/lib/*-linux-gnu/pkgconfig/velmora.pc || fail "DESTDIR is in velmora.pc"
make uninstall PREFIX=/usr DESTDIR="$work/stage" >"$work/log" 2>&1 || fail "$(cat "$work/log")"
[ -z "$(find "$work/stage" -mindepth 1)" ] || fail "make uninstall leaves something in DESTDIR"
echo "Installed copy: passed"

#!/bin/sh
# Programs outside the tree build by pkg-config, with plain compilers, and by CMake, and run: what an installed copy is for.
#   use.sh CONSUMER WORK PREFIX LIBDIR [FLAG...]   CONSUMER: their sources; WORK: an empty folder; LIBDIR: the copy's library folder;
#                                                  FLAG: further ones of the compiler (-m32)
# With LIBDIR "" the compiler's and pkg-config's own folders are meant. Only programs that the copy has are run.
set -eu
consumer=$1 work=$2 prefix=$3 libraries=$4
shift 4
PATH=$prefix/bin:$PATH
mkdir -p "$work"
bits=$(echo __SIZEOF_POINTER__ | gcc "$@" -E -P - | sed 's/4/32/;s/8/64/')
run_path=
if [ -n "$libraries" ]; then
    export PKG_CONFIG_PATH="$libraries/pkgconfig"
    run_path=-Wl,-rpath,$libraries
fi

fail() {
    echo "use.sh: $1" >&2
    exit 1
}
says() { # TEXT PROGRAM...
    text=$1
    shift
    "$@" >"$work/out" 2>&1 || fail "$* ended with $?: $(cat "$work/out")"
    grep -q "$text" "$work/out" || fail "$* says: $(cat "$work/out")"
}
# A program that knows the wire header only: it runs where there is a device, and where one is put in its place.
wire() {
    status=0
    "$1" >"$work/out" 2>&1 || status=$?
    [ "$status" -eq 2 ] || [ -e /dev/Velmora_MM ] || fail "$1 ended with $status without a device"
    if velmora-mm --help | grep -q '^  run '; then
        says "wire: $bits-bit, 8192 bytes" velmora-mm run -- "$1"
    fi
}

c_flags=$(pkg-config --cflags velmora) libs=$(pkg-config --libs velmora) static_libs=$(pkg-config --static --libs velmora | sed 's/-lvelmora/-l:libvelmora.a/')
warnings="-Wall -Wextra -Werror"
# shellcheck disable=SC2086
{
    gcc "$@" $warnings -o "$work/wire" "$consumer/wire.c" $c_flags
    g++ "$@" $warnings -std=c++20 -o "$work/application" "$consumer/application.cpp" $c_flags $libs $run_path
    g++ "$@" $warnings -std=c++20 -o "$work/application-static" "$consumer/application.cpp" $c_flags $static_libs
    ! g++ "$@" -std=c++17 -fsyntax-only "$consumer/application.cpp" $c_flags 2>"$work/out" || fail "the library's header takes C++17"
}
grep -q 'compile with -std=c++20' "$work/out" || fail "C++17 is told: $(cat "$work/out")"

by_cmake() {
    cmake -S "$consumer" -B "$work/cmake" -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_FLAGS="$*" -DCMAKE_CXX_FLAGS="$*" \
        ${libraries:+-Dvelmora_DIR="$libraries/cmake/velmora"} && cmake --build "$work/cmake"
}
by_cmake "$@" >"$work/log" 2>&1 || fail "CMake: $(cat "$work/log")"

for program in application application-static cmake/application-cmake cmake/application-cmake-static; do
    says "application: $bits-bit, 65536 bytes" "$work/$program"
done
for program in wire cmake/wire-cmake; do
    wire "$work/$program"
done

# Shared is shared, and of the ABI that the name says; the archive needs no library of ours.
for program in application cmake/application-cmake; do
    readelf -d "$work/$program" | grep -q 'NEEDED.*\[libvelmora\.so\.0\]' || fail "$program does not need libvelmora.so.0"
done
for program in application-static cmake/application-cmake-static; do
    ! readelf -d "$work/$program" | grep -q 'NEEDED.*velmora' || fail "$program needs libvelmora.so.0"
done
echo "$bits-bit programs use it"

#!/bin/sh
# Programs outside the tree build by pkg-config, with plain compilers, and by CMake, and run: what an installed copy is for.
#   use.sh CONSUMER WORK PREFIX LIBDIR [FLAG...]   CONSUMER: their sources; WORK: an empty folder; LIBDIR: the copy's library folder;
#                                                  FLAG: further ones of the compiler (-m32)
# With LIBDIR "" the compiler's and pkg-config's own folders are meant. The copy has velmora-mm as well.
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
    says "wire: $bits-bit, 8192 bytes" velmora-mm run -- "$1"
}
# GoogleTest is the user's own, and Debian has it for the machine's word size.
page_test() {
    says 'PASSED.*2 tests' "$1"
    ! "$1" --gtest_also_run_disabled_tests >"$work/out" 2>&1 || fail "$1 leaks, and passes"
    grep -q 'segment PAGE: owner 15 holds 16 blocks of 4096 bytes' "$work/out" || fail "$1 says of its leak: $(cat "$work/out")"
}

c_flags=$(pkg-config --cflags velmora) libs=$(pkg-config --libs velmora) static_libs=$(pkg-config --static --libs velmora | sed 's/-lvelmora/-l:libvelmora.a/')
warnings="-Wall -Wextra -Werror"
# shellcheck disable=SC2086
{
    gcc "$@" $warnings -o "$work/wire" "$consumer/wire.c" $c_flags
    gcc "$@" $warnings -std=c89 -pedantic -o "$work/c-application" "$consumer/c_application.c" $c_flags $libs $run_path
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
for program in c-application cmake/c-application-cmake; do
    says "c_application: $bits-bit, 65536 bytes" velmora-mm run -- "$work/$program"
done
for program in wire cmake/wire-cmake; do
    wire "$work/$program"
done
if [ -e "$work/cmake/page-test-cmake" ]; then
    # shellcheck disable=SC2086,SC2046
    g++ "$@" $warnings -std=c++20 -o "$work/page-test" "$consumer/page_test.cpp" $c_flags $libs $run_path $(pkg-config --cflags --libs gtest_main)
    page_test "$work/page-test"
    page_test "$work/cmake/page-test-cmake"
fi

# Shared is shared, and of the ABI that the name says; the archive needs no library of ours.
for program in application c-application cmake/application-cmake cmake/c-application-cmake; do
    readelf -d "$work/$program" | grep -q 'NEEDED.*\[libvelmora\.so\.0\]' || fail "$program does not need libvelmora.so.0"
done
for program in application-static cmake/application-cmake-static; do
    ! readelf -d "$work/$program" | grep -q 'NEEDED.*velmora' || fail "$program needs libvelmora.so.0"
done
echo "$bits-bit programs use it"

#!/bin/sh
# The wire header holds its layout in 64-bit programs, as C (old and new) and as C++, with and without the names that
# have no prefix; so does a program that has those names itself.
set -eu
cd "$1"
header=include/velmora_mm/velmora_mm.h
set -- -Wall -Wextra -Werror -fsyntax-only -I. -Iinclude -Ilib/include
for names in "" -DVELMORA_MM_PREFIXED_NAMES; do
    for standard in gnu89 c99 c11; do
        gcc-12 "$@" ${names:+"$names"} -std=$standard -x c "$header"
    done
    for standard in c++11 c++20; do
        g++-12 "$@" ${names:+"$names"} -std=$standard -x c++ "$header"
    done
done
# The library needs the prefixed names only; with the others it is built for 64-bit programs anyway.
g++-12 "$@" -DVELMORA_MM_PREFIXED_NAMES -std=c++20 -DVELMORA_MM_VERSION='"0"' lib/*.cpp
gcc-12 "$@" -std=c89 -pedantic -x c lib/include/velmora/velmora.h
g++-12 "$@" -std=c++11 -pedantic -x c++ lib/include/velmora/velmora.h
for standard in gnu89 c11; do
    gcc-12 "$@" -std=$standard tests/headers/prefixed_names.c
done
for standard in c++11 c++20; do
    g++-12 "$@" -std=$standard -x c++ tests/headers/prefixed_names.c
done
g++-12 "$@" -std=c++20 tests/headers/prefixed_names.cpp

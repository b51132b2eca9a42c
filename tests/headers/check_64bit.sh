#!/bin/sh
# The wire header holds its layout in 64-bit programs, as C (old and new) and as C++.
set -eu
header=$1/include/velmora_mm/velmora_mm.h
for standard in gnu89 c99 c11; do
    gcc-12 -std=$standard -Wall -Wextra -Werror -fsyntax-only -x c "$header"
done
for standard in c++11 c++20; do
    g++-12 -std=$standard -Wall -Wextra -Werror -fsyntax-only -x c++ "$header"
done
g++-12 -std=c++20 -Wall -Wextra -Werror -fsyntax-only -I "$1/include" "$1/lib/device.cpp" "$1/lib/node.cpp"

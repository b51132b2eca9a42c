#!/bin/sh
# Compiles what is written for 2.6.35 in the kernel sources against declarations of that kernel: the branches for old
# kernels in MM_Compat.h and in the test modules' compat.h are C, of that time's kind, and name what such a kernel has.
#   tests/target/old_kernel/check.sh FOLDER        for stand-ins of the kernel's headers
set -eu
cd "$(dirname "$0")/../../.."
headers=$1
sources="kernel/linux/MM_Linux.c kernel/linux/MM_Export.c kernel/linux/boot/reserve-area-2.6.35.c
    $(echo tests/target/modules/*/*.c)"
rm -rf "$headers"
# shellcheck disable=SC2086
sed -n 's#^\#include <\(\(linux\|asm\)/.*\)>#\1#p' $sources kernel/linux/MM_Compat.h tests/target/modules/compat.h | sort -u | while read -r header; do
    mkdir -p "$headers/$(dirname "$header")"
    echo '#include "declarations.h"' >"$headers/$header"
done
# shellcheck disable=SC2086
"${CROSS_COMPILE:-arm-linux-gnueabihf-}gcc" -fsyntax-only -std=gnu89 -Wall -Werror -Wstrict-prototypes -Wdeclaration-after-statement \
    -Wundef -Wno-address -ffreestanding -D__KERNEL__ -DMODULE -I"$headers" -Itests/target/old_kernel -Iinclude -Ikernel/mm/mm $sources
echo "kernel sources: $(echo "$sources" | wc -w) files compile against the declarations of 2.6.35"

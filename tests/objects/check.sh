#!/bin/sh
# What the manager's objects may contain: no code that runs before a load (global constructors, thread-safe
# statics), no dynamic memory, no call but to the platform boundary, the manager itself and what a compiler may emit
# for records (memcpy, memset, memmove, memcmp) and for 32-bit division on ARM.
#   check.sh NM ARCHIVE
set -eu
nm=$1
archive=$2
status=0

defined=$("$nm" "$archive" | awk 'NF == 3 && $2 ~ /[A-Z]/ && $2 != "U" { print $3 }' | sort -u)
undefined=$("$nm" "$archive" | awk '$1 == "U" { print $2 }' | sort -u)
for symbol in $undefined; do
    case $symbol in
    MMP_* | memcpy | memset | memmove | memcmp | __aeabi_uidiv | __aeabi_uidivmod | __aeabi_idiv | __aeabi_idivmod | \
        __aeabi_mem* | _GLOBAL_OFFSET_TABLE_ | __x86.get_pc_thunk.* | __stack_chk_fail*) continue ;;
    esac
    echo "$defined" | grep -qx -- "$symbol" && continue
    echo "the manager calls $symbol, which is outside the platform boundary"
    status=1
done

if readelf -SW "$archive" 2>/dev/null | grep -E '\.(init_array|ctors)'; then
    echo "the manager has global constructors"
    status=1
fi
[ -n "$defined" ] || { echo "no symbols found in $archive"; status=1; }
exit $status

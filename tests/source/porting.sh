#!/bin/sh
# docs/porting.md has a row for each entry of the platform boundary and of the device interface, and for no other.
#   porting.sh ROOT
set -eu
cd "$1"
status=0

declared=$(sed -n 's/^[A-Za-z0-9 *]*[ *]\(MMP_[A-Za-z]*\|Velmora_MM_[a-z]*\|[a-z_]*\)(.*;.*$/\1/p' kernel/mm/MM_Platform.h \
    kernel/mm/mmi/MM_Interface.h | sort -u)
# The first column: names in backquotes, of which a short one goes on with the first one's beginning.
# shellcheck disable=SC2016 # the backquotes are the table's own
rows=$(sed -n 's/^| \(`[^|]*`\) |.*/\1/p' docs/porting.md | tr -d '` ' | tr ',' '\n' |
    sed 's/^_/Velmora_MM_/; /^bigphysarea_info$/d' | sort -u)

[ "$(echo "$declared" | wc -l)" -gt 20 ] || { echo "the headers' entries are not found"; status=1; }
for name in $declared; do
    echo "$rows" | grep -qx -- "$name" || { echo "no row in docs/porting.md: $name"; status=1; }
done
for name in $rows; do
    echo "$declared" | grep -qx -- "$name" || { echo "in docs/porting.md, not in the headers: $name"; status=1; }
done
exit $status

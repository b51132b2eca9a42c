#!/bin/sh
# Every variable of the manager is in the list that is reset, dumped and hashed (controller/manager_state.cpp), or is one
# of the run index's own: tables that are derived from the lists and differ between a manager that keeps indexes and
# one that walks. MM_ResetRunIndexes puts those back.
#   check_state.sh OBJDUMP ARCHIVE FILE
set -eu
objdump=$1
archive=$2
list=$3
derived='astRunIndex
(anonymous namespace)::aulPool
(anonymous namespace)::fNoIndex
(anonymous namespace)::ulPoolUsed'

# Objects in sections that are written; constant tables with addresses in them (.data.rel.ro) are none of these.
variables=$("$objdump" -tC "$archive" | sed -nE 's/^[0-9a-f]+ .{6}O (\*COM\*|\.t?(data|bss)(\.[^\t]*)?)\t[0-9a-f]+ (\.hidden )?/\1\t/p' |
    sed -nE '/^\.data\.rel\.ro/!s/^[^\t]*\t//p' | sort -u)
listed=$(sed -nE 's/^    (NOT_)?DUMPED\((.*)\),$/\2/p' "$list" | sort -u)
if [ -z "$variables" ] || [ -z "$listed" ]; then
    echo "nothing found in $archive or $list"
    exit 1
fi

status=0
known=$(printf '%s\n' "$listed" "$derived")
while IFS= read -r variable; do
    echo "$known" | grep -qxF -- "$variable" && continue
    echo "the manager's variable $variable is not in $list"
    status=1
done <<END
$variables
END
exit $status

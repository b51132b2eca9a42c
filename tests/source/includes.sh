#!/bin/sh
# The manager's headers come in the order of the table in docs/architecture.md: each includes only headers above it,
# and the device interface only those that the table gives it.
#   includes.sh ROOT
set -eu
cd "$1"
status=0

# shellcheck disable=SC2016 # the backquotes are the table's own
order=$(sed -n 's/^| `\([A-Za-z_]*\.h\)` | .* | \(yes\|no\) |$/\1 \2/p' docs/architecture.md)
place() {
    echo "$order" | awk -v name="$1" '$1 == name { print NR }'
}
included() {
    sed -n 's,^ *# *include *["<]\([^">]*/\)*\([^"/>]*\)[">].*,\2,p' "$1"
}
complain() {
    echo "$1"
    status=1
}

[ -n "$order" ] || complain "no table of headers in docs/architecture.md"
for file in kernel/mm/*.h kernel/mm/mm/*.h kernel/mm/guard/*.h kernel/mm/mmi/*.h; do
    own=$(place "$(basename "$file")")
    [ -n "$own" ] || complain "$file is not in the table"
    for header in $(included "$file"); do
        other=$(place "$header")
        [ -n "$other" ] || complain "$file includes $header, which is not in the table"
        [ "${other:-0}" -lt "${own:-0}" ] || complain "$file includes $header, which does not stand above it"
    done
done
for file in kernel/mm/mm/*.cpp kernel/mm/guard/*.cpp kernel/mm/mmi/*.cpp; do
    for header in $(included "$file"); do
        [ -n "$(place "$header")" ] || complain "$file includes $header, which is not in the table"
    done
done
for file in kernel/mm/mmi/*; do
    for header in $(included "$file"); do
        echo "$order" | grep -qx "$header yes" || complain "$file includes $header, which is the core's own"
    done
done
exit $status

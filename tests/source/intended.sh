#!/bin/sh
# Behaviour that looks like a mistake: every tag INTENDED(name) in the source has a row in docs/architecture.md that
# names its unit, and every row has its tag.
#   intended.sh ROOT
set -eu
cd "$1"
status=0

# "unit name" for each tag and for each row.
tags=$(grep -ro 'INTENDED([a-z0-9-]*)' kernel | sed 's,^.*/\([A-Za-z_]*\)\.[a-z]*:INTENDED(\(.*\))$,\1 \2,' | sort -u)
# shellcheck disable=SC2016 # the backquotes are the table's own
rows=$(sed -n 's/^| `\([a-z0-9-]*\)` | `\(MM_[A-Za-z]*\)` | .*$/\2 \1/p' docs/architecture.md | sort -u)
[ -n "$tags" ] || { echo "no tags found below kernel/"; status=1; }

only_in() { # TITLE LINES OTHER
    echo "$2" | while read -r line; do
        echo "$3" | grep -qxF -- "$line" || echo "$1: $line"
    done
}
missing=$(only_in "tagged in the source, not in docs/architecture.md" "$tags" "$rows"
    only_in "in docs/architecture.md, not tagged in the source" "$rows" "$tags")
[ -z "$missing" ] || { echo "$missing"; status=1; }
exit $status

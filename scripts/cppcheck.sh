#!/bin/sh
# cppcheck over the manager, in both builds, its Linux glue, the simulated machine and the client library: fails on any finding. What it
# found clean before is remembered in build/lint/.
#   scripts/cppcheck.sh
set -eu
cd "$(dirname "$0")/.."

# A failed check prints its condition as it is written, so conditions carry texts: "x != NULL && "why"".
check() {
    name=$1
    shift
    mkdir -p "build/lint/cppcheck-$name"
    cppcheck --cppcheck-build-dir="build/lint/cppcheck-$name" -j2 --quiet --error-exitcode=1 --inline-suppr \
        --enable=warning,performance,portability --suppress=incorrectStringBooleanError -I . -I include -I lib/include "$@"
}
check default --std=c++20 --language=c++ -UMM_GUARDED kernel/mm host controller lib
check guarded --std=c++20 --language=c++ -DMM_GUARDED kernel/mm
check linux kernel/linux
echo "cppcheck: no findings"

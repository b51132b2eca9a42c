#!/bin/sh
# libvelmora(3) against the public headers: each header is named there, and each name that it gives is one of theirs.
#   check_manual.sh FOLDER-OF-SOURCES
set -eu
cd "$1"
manual=packaging/man/libvelmora.3
failures=0
complain() {
    echo "$manual: $1"
    failures=$((failures + 1))
}

for header in device.hpp velmora.h testing.hpp controller.hpp; do
    grep -q "^\\.I <velmora/$header>" "$manual" || complain "<velmora/$header> has no paragraph"
done
headers=$(sed -n 's/.*<\(velmora[_a-z]*\/[a-z_.]*\)>.*/\1/p' "$manual" | sort -u)
for header in $headers; do
    [ -e "lib/include/$header" ] || [ -e "include/$header" ] || complain "there is no <$header>"
done
# velmora::sim::Log, velmora::segments(), velmora_open(); targets of CMake look the same.
targets=$(sed -n 's/.*velmora_install_library(velmora_[a-z]* \([a-z-]*\)).*/\1/p' cmake/install.cmake)
names=$(sed 's/\\-/-/g' "$manual" | grep -Eo 'velmora(::[A-Za-z-]+)+|velmora_[a-z_]+\(\)' | sort -u)
[ "$(echo "$names" | wc -l)" -gt 15 ] || complain "few names are found: $names"
for name in $names; do
    last=${name##*::}
    echo "$targets" | grep -qx -- "$last" || grep -qw -- "${last%()}" lib/include/velmora/* || complain "$name is not in the headers"
done
exit "$failures"

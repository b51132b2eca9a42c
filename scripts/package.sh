#!/bin/sh
# Debian packages in build/packages/, built in a copy of the sources and checked by lintian. The last lines are their paths.
#   scripts/package.sh
set -eu
cd "$(dirname "$0")/.."

fail() {
    echo "package.sh: $1" >&2
    exit 1
}

project=$(sed -n 's/^project(.* VERSION \([0-9.]*\) .*/\1/p' CMakeLists.txt)
packaged=$(dpkg-parsechangelog -S Version)
[ "$project" = "$packaged" ] || fail "debian/changelog says $packaged, the project is $project"

place=build/packages
source=$place/velmora-mm-$project
log=$place/build.log
rm -rf "$source"
mkdir -p "$source"
rm -f "$place"/*.deb "$place"/*.buildinfo "$place"/*.changes
tar -c --exclude=./build --exclude=./.git . | tar -x -C "$source"

# The copy has no build folder.
VELMORA_NCURSES=$PWD/build/ncurses
export VELMORA_NCURSES
echo "Building the packages; what it says goes to $log"
(cd "$source" && DEB_BUILD_OPTIONS="parallel=$(nproc)" dpkg-buildpackage -b -uc -us) >"$log" 2>&1 || {
    tail -n 40 "$log" >&2
    fail "the packages cannot be built"
}
rm -rf "$source"
lintian --fail-on error "$place"/*.changes >"$place/lintian.log" 2>&1 || {
    cat "$place/lintian.log" >&2
    fail "lintian finds errors"
}
for package in "$place"/*.deb; do
    echo "$PWD/$package"
done

#!/bin/sh
# Brings Debian's ncurses (headers, archives for static programs) for other processors into build/ncurses/ARCHITECTURE, as
# plain folders: nothing is installed and the machine's own package lists are left alone. Debian has a package of 32-bit
# archives that installs on amd64 (lib32ncurses-dev), but the two archives in it do not fit each other.
#   scripts/ncurses.sh ARCHITECTURE...     of Debian: i386 armhf
set -eu
cd "$(dirname "$0")/.."

fetch() {
    architecture=$1
    place=$PWD/build/ncurses/$architecture
    [ -e "$place/complete" ] && return

    echo "Fetching Debian's ncurses for $architecture" >&2
    rm -rf "$place"
    mkdir -p "$place/apt/lists/partial" "$place/apt/archives/partial"
    # An index that cannot be fetched, a foreign one above all, is no reason to stop: the package may still resolve.
    apt update >"$place/update.log" 2>&1 || true
    (cd "$place/apt" && apt download "libncurses-dev:$architecture") >&2 || {
        cat "$place/update.log" >&2
        echo "ncurses.sh: libncurses-dev for $architecture cannot be fetched" >&2
        exit 1
    }
    dpkg -x "$place"/apt/libncurses-dev_*.deb "$place"
    rm -rf "$place/apt"
    touch "$place/complete" # the last: all is there
}
apt() {
    apt-get -qq -o APT::Architectures::="$(dpkg --print-architecture)" -o APT::Architectures::="$architecture" \
        -o Dir::State::Lists="$place/apt/lists" -o Dir::Cache="$place/apt" -o APT::Sandbox::User= \
        -o Acquire::Languages=none "$@"
}

for wanted in "$@"; do
    fetch "$wanted"
done

#!/bin/sh
# Brings the 32-bit libraries of the benchmarks into build/bench/packages, as plain folders: nothing foreign is
# installed and the machine's own package lists are left alone.
#
# Google Benchmark is the library in use: it is kept up, Debian builds it for 32-bit x86, and it finds by itself how often
# a workload must run for a steady rate. It has no percentiles of single operations; those are measured beside it.
set -eu
cd "$(dirname "$0")/.."

work=$PWD/build/bench
[ -e "$work/packages/ready" ] && exit 0

echo "Fetching Debian's 32-bit Google Benchmark, mimalloc and jemalloc" >&2
mkdir -p "$work/apt/lists/partial" "$work/apt/archives/partial"
apt() {
    command=$1
    shift
    "$command" -qq -o APT::Architectures::="$(dpkg --print-architecture)" -o APT::Architectures::=i386 \
        -o Dir::State::Lists="$work/apt/lists" -o Dir::Cache="$work/apt" -o APT::Sandbox::User= \
        -o Acquire::Languages=none "$@"
}

# An index that cannot be fetched, a foreign one above all, is no reason to stop: the packages may still resolve.
apt apt-get update >"$work/apt/update.log" 2>&1 || true
rm -rf "$work/debs" "$work/packages"
mkdir -p "$work/debs" "$work/packages"
cd "$work/debs"
apt apt-get download libbenchmark-dev:i386 libbenchmark1debian:i386 libpfm4:i386 libmimalloc2.0:i386 libjemalloc2:i386 || {
    cat "$work/apt/update.log" >&2
    exit 1
}
for package in ./*.deb; do
    dpkg -x "$package" "$work/packages"
    # shellcheck disable=SC2016 # the fields are dpkg's
    dpkg-deb --show --showformat '${Package} ${Version}\n' "$package"
done >"$work/packages/versions"
rm -rf "$work/apt" "$work/debs"
touch "$work/packages/ready"

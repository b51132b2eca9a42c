#!/bin/sh
# What the shared library offers: the C interface and names of namespace velmora, under its own version; and no other.
#   check_exports.sh NM LIBRARY
set -eu
defined=$("$1" -D --defined-only --demangle "$2" | sed 's/^[0-9a-f]* *[A-Za-z] //' | grep -v '^VELMORA_0$')
others=$(echo "$defined" | grep -Ev '^(velmora_[a-z_]*|((vtable|typeinfo|typeinfo name|VTT|guard variable) for )?velmora::.*)@@VELMORA_0$' || true)
[ -z "$others" ] || { printf 'the library offers more than it says:\n%s\n' "$others"; exit 1; }
for name in velmora_open velmora_allocate velmora::Segment::create velmora::Block::release 'typeinfo for velmora::Error' \
    velmora::sim::Controller::failNth velmora::owners; do
    echo "$defined" | grep -q "^$name" || { echo "$name is missing"; exit 1; }
done
readelf -d "$2" | grep -q 'SONAME.*\[libvelmora.so.0\]' || { echo "the soname is not libvelmora.so.0"; exit 1; }

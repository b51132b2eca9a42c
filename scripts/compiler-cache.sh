#!/bin/sh
# Runs a compiler through ccache, where it is installed: the builds have many sources in common that are compiled alike.
#   scripts/compiler-cache.sh COMPILER ARGUMENTS...
# What was compiled lies in build/ccache, or where CCACHE_DIR says; a source finds itself there from every build folder.
command -v ccache >/dev/null || exec "$@"
project=$(cd "$(dirname "$0")/.." && pwd)
export CCACHE_DIR="${CCACHE_DIR:-$project/build/ccache}" CCACHE_NOHASHDIR=1
exec ccache "$@"

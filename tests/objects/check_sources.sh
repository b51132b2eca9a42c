#!/bin/sh
# The sources of the manager that CMake compiles are those that the kernel module is made of.
#   check_sources.sh ROOT SOURCE...     the sources as CMake has them, relative to kernel/
set -eu
kernel=$1/kernel
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

printf '%s\n' "$@" | sed 's#.*/##; s#\.cpp$#.o#' | sort >"$work/cmake"
# Kbuild's own answer: the module's objects less the C glue.
make -s -f - src="$kernel/linux" obj=. <<'END' | sort >"$work/kbuild"
include $(src)/Kbuild
.DEFAULT_GOAL := objects
.PHONY: objects FORCE
objects:
	@printf '%s\n' $(filter-out $(patsubst %.c,%.o,$(notdir $(wildcard $(src)/*.c))),$(velmora_mm-objs))
END
[ -s "$work/kbuild" ] || { echo "Kbuild names no object"; exit 1; }
diff -u "$work/cmake" "$work/kbuild"

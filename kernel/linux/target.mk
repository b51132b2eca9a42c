# The Linux side: the kernel module, and its tests on an emulated controller. Included by the Makefile at the root;
# works from there on its own as well (make -f kernel/linux/target.mk module).

ARCH ?= arm
CROSS_COMPILE ?= arm-linux-gnueabihf-
KDIR ?=

# Nothing but the module's path may come last, whatever folder make was called from.
MAKEFLAGS += --no-print-directory

.PHONY: module test-target target-demo

## make module     the kernel module; the last line is its path  [KDIR=kernel-tree ARCH=arm CROSS_COMPILE=arm-linux-gnueabihf-]
module:
	@scripts/setup.sh build
	@KDIR='$(KDIR)' ARCH='$(ARCH)' CROSS_COMPILE='$(CROSS_COMPILE)' MAKE='$(MAKE)' scripts/target-module.sh

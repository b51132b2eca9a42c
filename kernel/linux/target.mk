# The Linux side: the kernel module, and its tests on an emulated controller. Included by the Makefile at the root;
# the module's part works from there on its own as well (make -f kernel/linux/target.mk module).

ARCH ?= arm
CROSS_COMPILE ?= arm-linux-gnueabihf-
KDIR ?=
KERNEL ?=
BOARD ?=
TARGET_SUITE ?=
GUARDED ?=
export ARCH CROSS_COMPILE KDIR KERNEL BOARD TARGET_SUITE GUARDED

# Nothing but the module's path may come last, whatever folder make was called from.
MAKEFLAGS += --no-print-directory

.PHONY: module test-target test-hostile target-demo

## make module     the kernel module; the last line is its path  [KDIR=kernel-tree ARCH=arm CROSS_COMPILE=arm-linux-gnueabihf-]
##                 (the guarded one, which survives its applications: GUARDED=1, see docs/security.md)
module:
	@scripts/setup.sh build
	@MAKE='$(MAKE)' scripts/target-module.sh

# The emulated controller. Its programs are CMake's: the preset "target".
target-programs = $(call preset,target) --target

## make test-target  the module on an emulated controller: QEMU boots Debian's ARMv7 kernel, tests run in it
##                 (another board or kernel: BOARD=product KERNEL=zImage KDIR=tree, see docs/target.md; this one, module and
##                 target-demo: the kernel of another Debian suite with TARGET_SUITE=bookworm-backports)
test-target:
	@scripts/setup.sh build test target
	@scripts/ncurses.sh armhf
	@tests/target/old_kernel/check.sh build/target/old-kernel
	@$(call preset,x86) --target velmora-mm
	@$(target-programs) target-init target-session target-tests velmora-mm
	@scripts/target-test.sh

## make test-hostile  hostile processes against the guarded module on the emulated controller, with one processor and with
##                 four; others that keep the rules against the default one  [SECONDS=20 SEED=time]
SECONDS ?= 20
SEED ?=
test-hostile:
	@scripts/setup.sh build test target
	@$(target-programs) target-init target-hostile
	@scripts/target-hostile.sh '$(SECONDS)' $(if $(SEED),'$(SEED)')

## make target-demo  the print job through the real module, on the emulated controller  [DOC=file.pdf COPIES=3 TARGET_DPI=50]
target-demo:
	@scripts/setup.sh build test demo target
	@$(call preset,x86) --target print-job
	@$(target-programs) target-init print-job
	@DOC='$(DOC)' COPIES='$(or $(COPIES),3)' DPI='$(TARGET_DPI)' scripts/target-demo.sh

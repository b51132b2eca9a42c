# The Linux side: the kernel module, and its tests on an emulated controller. Included by the Makefile at the root;
# works from there on its own as well (make -f kernel/linux/target.mk module).

ARCH ?= arm
CROSS_COMPILE ?= arm-linux-gnueabihf-
KDIR ?=
TARGET_SUITE ?=
export TARGET_SUITE

# Nothing but the module's path may come last, whatever folder make was called from.
MAKEFLAGS += --no-print-directory

.PHONY: module test-target target-demo

## make module     the kernel module; the last line is its path  [KDIR=kernel-tree ARCH=arm CROSS_COMPILE=arm-linux-gnueabihf-]
module:
	@scripts/setup.sh build
	@KDIR='$(KDIR)' ARCH='$(ARCH)' CROSS_COMPILE='$(CROSS_COMPILE)' MAKE='$(MAKE)' scripts/target-module.sh

# The emulated controller: test programs are static, they run on nothing but the kernel.
target-work := build/target
target-cxx := $(CROSS_COMPILE)g++
target-cxxflags := -static -O2 -g -std=c++20 -Wall -Wextra -Werror -Iinclude -I. -MMD -MP

target-test-objects := $(addprefix $(target-work)/obj/,main.o board.o $(notdir $(patsubst %.cpp,%.o,$(wildcard tests/target/*_test.cpp))))

-include $(wildcard $(target-work)/obj/*.d)

$(target-work)/obj/%.o: tests/target/%.cpp
	@mkdir -p $(@D)
	@echo "  ARM     $<"
	@$(target-cxx) $(target-cxxflags) -c -o $@ $<

$(target-work)/obj/session_text.o: controller/session_text.cpp controller/session_text.h
	@mkdir -p $(@D)
	@echo "  ARM     $<"
	@$(target-cxx) $(target-cxxflags) -c -o $@ $<

$(target-work)/image/init: $(target-work)/obj/init.o
$(target-work)/image/bin/target-tests: $(target-test-objects)
$(target-work)/image/bin/target-session: $(addprefix $(target-work)/obj/,session_main.o board.o session_text.o)
target-programs := $(addprefix $(target-work)/image/,init bin/target-tests bin/target-session)
$(target-programs):
	@mkdir -p $(@D)
	@$(target-cxx) -static -s -o $@ $^

## make test-target  the module on an emulated controller: QEMU boots Debian's ARMv7 kernel, tests run in it
##                 (this one, module and target-demo: the kernel of another Debian suite with TARGET_SUITE=bookworm-backports)
test-target:
	@scripts/setup.sh build target
	@[ -e build/x86/build.ninja ] || cmake --preset x86 >/dev/null
	@cmake --build --preset x86 --target velmora-mm
	@$(MAKE) -f kernel/linux/target.mk $(target-programs)
	@scripts/target-test.sh

# The print job as make demo builds it for ARMv7, linked once more without shared libraries.
$(target-work)/image-demo/bin/print-job: build/arm/bin/print-job
	@mkdir -p $(@D)
	@$(target-cxx) -static -s -o $@ build/arm/CMakeFiles/print-job.dir/examples/print_job.cpp.o build/arm/libhost.a \
	    build/arm/libprintjob.a build/arm/libclient.a build/arm/libmanager.a build/arm/libhost.a

## make target-demo  the print job through the real module, on the emulated controller  [DOC=file.pdf COPIES=3 TARGET_DPI=50]
target-demo:
	@scripts/setup.sh build demo target
	@for preset in x86 arm; do \
	    [ -e build/$$preset/build.ninja ] || cmake --preset $$preset >/dev/null; \
	    cmake --build --preset $$preset --target print-job || exit 1; \
	done
	@$(MAKE) -f kernel/linux/target.mk $(target-work)/image/init $(target-work)/image-demo/bin/print-job
	@DOC='$(DOC)' COPIES='$(or $(COPIES),3)' DPI='$(or $(TARGET_DPI),50)' scripts/target-demo.sh

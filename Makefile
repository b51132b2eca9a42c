# Front door. Each target installs the packages that it is missing, builds what changed and runs.
#   make build | demo | test | bench | module | target-demo | help

DOC ?=
COPIES ?= 3
DPI ?= 75
TIME ?= 60
MUTANTS ?= 600
JOBS ?=
BUILD ?= default
FUZZ_SEED ?= $(shell date +%s)

.DEFAULT_GOAL := help
include kernel/linux/target.mk
include bench/bench.mk
.PHONY: help build build-x86 build-arm build-guarded demo test test-x86 test-guarded test-integer soak test-x86_64 test-arm test-sanitize coverage mutate fuzz format format-check lint docs install uninstall package test-packages clean

help:
	@sed -n 's/^## //p' $(MAKEFILE_LIST)

# Configures a preset once and builds it.
preset = cmake --preset $(1) $(if $(wildcard build/$(1)/build.ninja build/$(1)/programs/build.ninja build/$(1)/x86/build.ninja),>/dev/null) && cmake --build --preset $(1)

## make build      everything hosted: build/bin/ (32-bit x86), build/arm/bin/ (ARMv7), build/guarded/bin/ (the guarded manager)
build: build-x86 build-arm build-guarded

build-x86:
	@scripts/setup.sh build test
	@scripts/ncurses.sh i386
	@$(call preset,x86)

# The guarded manager on the simulated controller: build/guarded/bin/. Its tests compare it with the default build.
build-guarded:
	@scripts/setup.sh build test
	@$(call preset,guarded)

build-arm:
	@scripts/setup.sh build test
	@scripts/ncurses.sh armhf
	@$(call preset,arm)

## make demo       prints a document through the manager, by three processes  [DOC=file.pdf COPIES=3 DPI=75]
demo: build-x86
	@scripts/setup.sh demo
	@build/bin/print-job --processes $(if $(DOC),--document '$(DOC)') --copies $(COPIES) --dpi $(DPI) --output build/demo

## make test       the gates (format-check, lint), then every test: x86, the client library in 64 bits, ARMv7 under qemu-arm, sanitizers, coverage of the manager, the packages in a clean Debian, the module on an emulated controller
test: format-check lint test-x86 test-guarded test-integer test-x86_64 test-arm test-sanitize coverage test-packages test-target test-hostile
	@echo "All tests passed"

test-x86: build-x86
	@scripts/setup.sh demo test-pages
	ctest --preset x86

test-guarded: build-x86 build-guarded
	ctest --preset guarded

# The client library in programs of this machine's word size, on the controller of the 32-bit build; once more with
# ThreadSanitizer.
test-x86_64: build-x86
	@$(call preset,x86_64)
	ctest --preset x86_64
	@$(call preset,threads)
	ctest --preset threads

# The guarded build's tests with clang's checks of integer arithmetic in kernel/mm/guard/.
test-integer:
	@scripts/setup.sh fuzz
	@$(call preset,integer)
	ctest --preset integer

## make soak       weeks of print jobs on both builds, and a plot of the first one: build/soak/  [HOURS=1, fractions allowed; SEED=time]
HOURS ?= 1
soak:
	@scripts/setup.sh build test
	@$(call preset,x86) --target velmora-soak
	@$(call preset,guarded) --target velmora-soak
	@scripts/soak.sh '$(HOURS)' $(if $(SEED),'$(SEED)')

test-arm: build-arm
	ctest --preset arm

test-sanitize:
	@scripts/setup.sh build test demo
	@scripts/ncurses.sh i386
	@$(call preset,sanitize)
	ctest --preset sanitize

## make coverage   lines and branches of the manager that its tests reach, of both builds: build/coverage/report/index.html, guarded.html
coverage:
	@scripts/setup.sh build test
	@scripts/ncurses.sh i386
	@$(call measured,coverage,--filter kernel/mm/mm/ --filter kernel/mm/mmi/,index.html,100,100)
	@$(call measured,coverage-guarded,--filter kernel/mm/guard/,guarded.html,93,75)

# Builds a preset and runs its tests; fails below a percentage of the lines, or of the branches, in some folders of the sources.
measured = $(call preset,$(1)) && find build/$(1) -name '*.gcda' -delete && ctest --preset $(1) && mkdir -p build/coverage/report && \
    gcovr --root . $(2) --object-directory build/$(1) --gcov-executable gcov-12 --exclude-throw-branches --branches --txt --print-summary \
    --html-details build/coverage/report/$(3) --fail-under-line $(4) --fail-under-branch $(5) build/$(1)

## make mutate     small changes to the manager, one at a time, against its tests; docs/testing.md explains what survives  [MUTANTS=600|all JOBS= BUILD=default|guarded]
mutate:
	@scripts/setup.sh build test mutate
	@tests/mutation/mutate.py '$(MUTANTS)' '$(JOBS)' '$(BUILD)'

## make fuzz       every fuzz target of both builds, for TIME each  [TIME=60: seconds, or 30m, 2h; FUZZ_SEED=time]
fuzz:
	@scripts/fuzz.sh check '$(TIME)'
	@$(MAKE) --no-print-directory build-x86
	@scripts/setup.sh fuzz
	@$(call preset,fuzz)
	@$(call preset,fuzz-guarded)
	@scripts/fuzz.sh run '$(TIME)' '$(FUZZ_SEED)'

## make format-check  fails where a source is not as clang-format writes it;  make format: rewrites it
formatted := git ls-files '*.c' '*.h' '*.cpp' '*.hpp'
format-check:
	@scripts/setup.sh lint
	@$(formatted) | xargs clang-format --dry-run -Werror

format:
	@scripts/setup.sh lint
	@$(formatted) | xargs clang-format -i

## make lint       fails on any finding of shellcheck (scripts), cppcheck or clang-tidy (sources, functions above 60 lines included)
lint: build-x86
	@scripts/setup.sh lint bench
	@git ls-files '*.sh' packaging/velmora-mm-load | xargs shellcheck
	@scripts/cppcheck.sh
	@bench/packages.sh
	@for preset in bench target guarded; do cmake --preset $$preset >/dev/null || exit 1; done
	@scripts/lint.py build/x86 build/bench build/target/programs build/guarded/x86

## make docs       API reference and application guide: build/docs/html/index.html; fails on a public name without a comment
docs:
	@scripts/setup.sh docs
	@mkdir -p build/docs
	@VELMORA_VERSION=$$(sed -n 's/^project(velmora_mm VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt) doxygen docs/Doxyfile
	@echo build/docs/html/index.html

## make install    libraries (both word sizes), headers, CMake and pkg-config packages, programs, manual pages  [PREFIX=/usr/local DESTDIR=]
## make uninstall  removes what make install put there  [PREFIX=/usr/local DESTDIR=]
PREFIX ?= /usr/local
DESTDIR ?=
install:
	@scripts/ncurses.sh i386
	@PREFIX='$(PREFIX)' DESTDIR='$(DESTDIR)' scripts/install.sh

uninstall:
	@scripts/ncurses.sh i386
	@PREFIX='$(PREFIX)' DESTDIR='$(DESTDIR)' scripts/install.sh --remove

## make package    Debian packages in build/packages/: velmora-mm, libvelmora0, libvelmora-dev, velmora-mm-dkms
package:
	@scripts/setup.sh package
	@scripts/ncurses.sh i386
	@scripts/package.sh

## make test-packages  an installed copy and the packages in a clean Debian: programs outside this tree use them; nothing is left behind
test-packages: package
	@scripts/setup.sh build test-packages
	@tests/packages/installed_copy.sh
	@tests/packages/clean_root.sh
	@tests/packages/module_source.sh

## make clean      removes build/
clean:
	rm -rf build

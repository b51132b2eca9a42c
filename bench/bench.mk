# Benchmarks. Included by the Makefile at the root; works from there on its own as well (make -f bench/bench.mk bench).

QUICK ?=

.PHONY: bench bench-contenders bench-guarded bench-build bench-guarded-build bench-docs bench-record

bench-build:
	@scripts/setup.sh bench
	@bench/packages.sh
	@cmake --preset bench $(if $(wildcard build/bench/build.ninja),>/dev/null)
	@cmake --build --preset bench

bench-guarded-build: bench-build
	@cmake --preset bench-guarded $(if $(wildcard build/bench-guarded/build.ninja),>/dev/null)
	@cmake --build --preset bench-guarded

## make bench      the manager beside other allocators (build/bench/results.json, times.svg), the guarded build beside the default one (guarded.json)  [QUICK=1: two minutes]
bench: bench-contenders bench-guarded

bench-contenders: bench-build
	@build/bench/velmora-bench $(if $(QUICK),--quick) --sequence bench/print-job.txt --output build/bench/results.json
	@python3 bench/report.py build/bench

## make bench-guarded  the guarded build beside the default one alone  [QUICK=1]
bench-guarded: bench-guarded-build
	@python3 bench/side_by_side.py build/bench build/bench-guarded $(if $(QUICK),--quick)

# Puts the last run into docs/performance.md.
bench-docs:
	@python3 bench/report.py build/bench --docs docs

# Prints the default document and writes down what the job allocates and releases: bench/print-job.txt.
bench-record: bench-build
	@scripts/setup.sh demo
	@build/bench/record-print-job --rasters build/bench/drawn --output bench/print-job.txt

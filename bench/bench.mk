# Benchmarks. Included by the Makefile at the root; works from there on its own as well (make -f bench/bench.mk bench).

QUICK ?=

.PHONY: bench bench-build bench-docs bench-record

bench-build:
	@scripts/setup.sh bench
	@bench/packages.sh
	@cmake --preset bench $(if $(wildcard build/bench/build.ninja),>/dev/null)
	@cmake --build --preset bench

## make bench      the manager beside other allocators: build/bench/results.json, times.svg  [QUICK=1: under a minute]
bench: bench-build
	@build/bench/velmora-bench $(if $(QUICK),--quick) --sequence bench/print-job.txt --output build/bench/results.json
	@python3 bench/report.py build/bench

# Puts the last run into docs/performance.md.
bench-docs:
	@python3 bench/report.py build/bench --docs docs

# Prints the default document and writes down what the job allocates and releases: bench/print-job.txt.
bench-record: bench-build
	@scripts/setup.sh demo
	@build/bench/record-print-job --rasters build/bench/drawn --output bench/print-job.txt

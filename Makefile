# The one door. Every target is complete on a fresh Debian 12 machine: it installs what is missing, configures, builds, runs.

SHELL := /bin/bash
JOBS ?= $(shell nproc)
DESTDIR ?=
PREFIX ?= /usr/local

.PHONY: help setup build test desktop-test demo bench fuzz vm-test vm-soak package package-test install coverage lint format asan tsan clang clean
.DEFAULT_GOAL := help

help:
	@echo "make demo      open the console on a virtual Mirn (without a display: run the same scenario, leave demo.png)"
	@echo "make test      build everything and run the whole test suite"
	@echo "make build     programs into build/bin"
	@echo "make bench     measure against peers, one table at the end"
	@echo "make fuzz      every fuzzer for a minute (FUZZ_SECONDS=60)"
	@echo "make vm-test   the whole stack on a real kernel in QEMU"
	@echo "make package   Debian packages into build/packages; package-test: install, run, remove them in a bare root"
	@echo "make install   DESTDIR and PREFIX are honoured"
	@echo "make coverage  line coverage of each room"
	@echo "make asan tsan lint clang   the suite under sanitizers; formatting, arrows and lint; a whole clang build"

setup:
	@tools/setup.sh build test

build: setup
	@cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS)

test: build
	@tools/run_ctest.sh build

desktop-test: build
	@tools/run_ctest.sh build -L desktop

demo: build
	@apps/demo.sh build

asan: setup
	@cmake --preset asan >/dev/null && cmake --build --preset asan -j $(JOBS)
	@tools/run_ctest.sh build-asan

# Without the window tests: the toolkit and the graphics drivers aren't instrumented. The race test runs for a minute.
tsan: setup
	@cmake --preset tsan >/dev/null && cmake --build --preset tsan -j $(JOBS)
	@MIRN_RACE_SECONDS=60 tools/run_ctest.sh build-tsan -LE desktop

clang: setup
	@cmake --preset clang >/dev/null && cmake --build --preset clang -j $(JOBS)

lint: setup
	@cmake --preset release >/dev/null # the picture of the rooms is drawn from its targets
	@tools/lint.sh

format:
	@git ls-files '*.h' '*.cc' | xargs -r clang-format -i

bench:
	@tools/setup.sh build bench
	@cmake --preset bench >/dev/null && cmake --build --preset bench -j $(JOBS)
	@tools/run_bench.py build-bench $(BENCH)

fuzz:
	@tools/setup.sh build fuzz
	@cmake --preset fuzz >/dev/null && cmake --build --preset fuzz -j $(JOBS)
	@tools/run_fuzz.sh build-fuzz $${FUZZ_SECONDS:-60}

vm-test: build
	@tools/setup.sh vm
	@tests/vm/run build

vm-soak: build
	@tools/setup.sh vm
	@tests/vm/soak build

package: setup
	@tools/setup.sh package
	@packaging/build_packages.sh

package-test: package
	@tests/package/install_test.sh

install: build
	@DESTDIR='$(DESTDIR)' cmake --install build --prefix '$(PREFIX)'

coverage:
	@tools/setup.sh build test coverage
	@cmake --preset coverage >/dev/null && cmake --build --preset coverage -j $(JOBS)
	@tools/coverage.sh build-coverage

clean:
	rm -rf build build-*

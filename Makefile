# The front door: `make` lists what there is. Every target installs what it needs and is missing.
SHELL := /bin/bash
.SHELLFLAGS := -euo pipefail -c
.DEFAULT_GOAL := help
MAKEFLAGS += --no-print-directory

JOBS ?= $(shell nproc)
# Passed on to ctest, e.g. make test ARGS='-R unit_queue'.
ARGS ?=
# For make fuzz: how long each target runs, and which (all when empty).
SECONDS ?= 60
TARGET ?=
# For make simulate: how many seeds run, and from which on.
SEEDS ?= 4000
FIRST ?= 1

.PHONY: help deps build package test demo bench check check-all docs asan tsan clang tidy fuzz simulate screenshots coverage format clean \
  deps-build deps-test deps-checks

help: ## list the targets
	@echo "Targets:"
	@awk -F ':.*## ' '/^[a-z-]+:.*## / { printf "  make %-11s %s\n", $$1, $$2 }' $(firstword $(MAKEFILE_LIST))

build: deps-build ## make the release programs, in build/bin/
	@cmake --preset release
	@cmake --build --preset release -j $(JOBS)

package: build ## make a Debian package of the libraries, headers and programs, in build/
	@cd build/release && cpack -G DEB
	@mv build/release/kestrova_*.deb build/

test: deps-test ## build everything for development and run all tests
	@$(call run-tests,dev)

demo: build ## show the whole pipeline at work against the development server
	@build/bin/kestrova demo

bench: deps-build ## run the benchmarks
	@cmake --preset bench
	@cmake --build --preset bench -j $(JOBS)
	@for program in build/bench/bench/bench_*; do "$$program" $(ARGS); done

docs: deps-docs ## make the reference of the public headers, in build/reference/html/
	@tools/reference

check: deps-build deps-checks deps-docs ## the fast checks: include rules, texts, formatting, the reference
	@python3 -B tests/checks/test_checks.py
	@python3 -B tests/checks/include_rules.py .
	@python3 -B tests/checks/platform_rows.py .
	@python3 -B tests/checks/texts.py .
	@python3 -B tests/checks/named_tests.py .
	@tools/format --check
	@python3 -B tests/documents/reference.py .
	@echo "Include rules, texts, formatting and reference: in order"

check-all: check asan tsan tidy fuzz simulate coverage ## the heavy checks too: sanitizers, clang-tidy, fuzzers, simulation, coverage

asan: deps-test ## run the tests with the address and undefined-behaviour sanitizers
	@$(call run-tests,asan)

tsan: deps-test deps-checks ## run the tests with the thread sanitizer (clang 19)
	@$(call run-tests,tsan)

clang: deps-test deps-checks ## run the tests as clang 19 compiles them
	@$(call run-tests,clang)

tidy: deps-build deps-checks ## run clang-tidy over src/
	@cmake --preset clang
	@tools/tidy

fuzz: deps-test deps-checks ## run the fuzzers for a minute each: make fuzz TARGET=json SECONDS=600
	@cmake --preset fuzz
	@cmake --build --preset fuzz -j $(JOBS)
	@tools/fuzz -j $(JOBS) $(SECONDS) $(TARGET)

simulate: deps-test ## run the simulation: make simulate SEEDS=100000 FIRST=4001
	@cmake --preset dev
	@cmake --build --preset dev -j $(JOBS) --target kestrova-simulate
	@seq 0 $$(( $(JOBS) - 1 )) | xargs -P $(JOBS) -I PART bash -c 'part=$$(( ($(SEEDS) + $(JOBS) - 1) / $(JOBS) )); \
	  build/dev/bin/kestrova-simulate --figures --first $$(( $(FIRST) + PART * part )) --seeds $$part'

screenshots: deps-test ## make pictures of the live page's main states, in build/screenshots/
	@cmake --preset dev
	@cmake --build --preset dev -j $(JOBS) --target kestrova kestrova-devserver kestrova-transferd
	@KESTROVA_BIN_DIR=build/dev/bin node tests/browser/screenshots.mjs build/screenshots

coverage: deps-test deps-checks ## run the tests and report which lines they reach
	@find build/coverage -name '*.gcda' -delete 2>/dev/null || true
	@$(call run-tests,coverage)
	@tools/coverage-report

format: deps-checks ## format the C++ files in place
	@tools/format

deps: deps-test deps-checks deps-docs ## install all that any target needs

clean: ## remove everything that was built
	rm -rf build

deps-build:
	@tools/install-packages build

deps-test:
	@tools/install-packages build node browser
	@tools/install-npm

deps-checks:
	@tools/install-packages checks

deps-docs:
	@tools/install-packages docs

define run-tests
cmake --preset $(1) && cmake --build --preset $(1) -j $(JOBS) && ctest --preset $(1) -j $(JOBS) $(ARGS)
endef

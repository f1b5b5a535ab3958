# SPDX-License-Identifier: Apache-2.0
# The everyday commands, thin over CMakePresets.json. `make help` lists them.
.DEFAULT_GOAL := build
.PHONY: build demo check bench fuzz coverage soak tidy install packages try-packages reference clean
.PHONY: help configured

JOBS ?= $(shell nproc)
SAY = @printf '==> %s\n'
CMAKE_ARGS ?=
configure = cmake --preset $(1) $(CMAKE_ARGS) >/dev/null
compile = cmake --build --preset $(1) -j $(JOBS)

build: configured ## library, agent and command, optimised, in build/bin and build/lib (the default)
	$(SAY) "build: library and programs, optimised, in build/"
	@$(call compile,release) --target programs

configured:
	@scripts/bootstrap build
	@$(call configure,release)

demo: build ## an agent under a live rule set, edited under way; RULES=FILE takes any ClassBench file
	$(SAY) "demo: agent and producer on a temporary directory"
	@scripts/demo

check: ## every test: under the sanitizers first, then optimised, and each benchmark once, briefly
	@scripts/bootstrap build check bench xdp
	$(SAY) "check: layout of the sources"
	@scripts/format --check
	@$(call configure,release)
	$(SAY) "check: clang-tidy over the product's sources"
	@JOBS=$(JOBS) scripts/tidy
	$(SAY) "check: optimised build in build/"
	@$(call compile,release) --target all benches
	$(SAY) "check: sanitized build in build-asan-ubsan/"
	@$(call configure,asan-ubsan)
	@$(call compile,asan-ubsan)
	$(SAY) "check: tests under address and undefined-behaviour sanitizers"
	@ctest --preset asan-ubsan -j $(JOBS)
	$(SAY) "check: what races, built in build-tsan/, under the thread sanitizer"
	@$(call configure,tsan)
	@$(call compile,tsan) --target tsan_tests
	@ctest --preset tsan -j $(JOBS)
	$(SAY) "check: every test, optimised"
	@ctest --preset release -j $(JOBS)

bench: ## a table of measurements a group; JSON=1 for one JSON document
	@echo "==> bench: optimised build in build/" >&2
	@scripts/bootstrap build bench xdp >&2
	@$(call configure,release)
	@$(call compile,release) --target benches >&2
	@scripts/bench $(if $(JSON),--json) $(BENCH_ARGS)

fuzz: ## each fuzz target for FUZZ_SECONDS (60), clang and libFuzzer
	$(SAY) "fuzz: clang build in build-fuzz/"
	@scripts/bootstrap build fuzz
	@$(call configure,fuzz)
	@$(call compile,fuzz)
	@scripts/fuzz

coverage: ## which lines of vantrel/ the tests run; fails below 95 %
	$(SAY) "coverage: instrumented build in build-coverage/"
	@scripts/bootstrap build coverage
	@$(call configure,coverage)
	@$(call compile,coverage)
	@scripts/coverage

soak: configured ## SOAK_MINUTES (10) of churn, then of seeded walks; 10,000 kills
	@$(call compile,release) --target programs shoal_kill_test test_walks test_exhaustive test_closed_worlds
	$(SAY) "soak: churning the same keys, watching order, acknowledgements and memory"
	@scripts/soak
	$(SAY) "soak: tests that get better with time"
	@scripts/soak_tests

tidy: configured ## clang-tidy over the product's sources, not the tests'
	$(SAY) "tidy: the checks of .clang-tidy"
	@scripts/bootstrap tidy
	@JOBS=$(JOBS) scripts/tidy

PREFIX ?= /usr/local
install: build ## library, public headers and executables below DESTDIR/PREFIX (/usr/local)
	$(SAY) "install: into $(DESTDIR)$(PREFIX)"
	@DESTDIR=$(DESTDIR) cmake --install build --prefix $(PREFIX) --strip

packages: build ## Debian packages: library, development files, programs; in build/packages
	$(SAY) "packages: in build/packages"
	@scripts/bootstrap packages
	@cd build && cpack -B packages

try-packages: packages ## installs them on this machine, uses each, and takes them away again
	$(SAY) "try-packages: an agent, the command, a program built against the library"
	@scripts/try_packages build/packages

reference: build ## the API as pages, in build/reference/html
	$(SAY) "reference: the installed headers, by Doxygen"
	@scripts/bootstrap docs
	@scripts/reference build/reference

clean: ## removes every build directory of the presets
	$(SAY) "clean: removing build/ and the other presets' directories"
	@rm -rf build build-debug build-asan-ubsan build-tsan build-coverage build-fuzz

help: ## this list
	@awk -F ':.*## ' '/^[a-z]+:.*## / { printf "  make %-8s %s\n", $$1, $$2 }' $(MAKEFILE_LIST)

# A thin door to the scripts and to CMake's presets; `make help` lists what there is.

JOBS ?= $(shell nproc)
SECONDS ?= 60
BENCH_ARGS ?=
PEERS ?= $(wildcard bench/peers/*.py)
PEERS_ARGS ?=
SERVERS_ARGS ?=
STORAGE_ARGS ?=

# ThreadSanitizer of clang 14 can't map its shadow memory where the kernel randomises addresses by more than
# 28 bits; where that may be switched off for a process, it is.
NO_ASLR := $(shell setarch -R true 2>/dev/null && echo setarch -R)

.DEFAULT_GOAL := help
.PHONY: help build run test servers storage bench lint asan tsan fuzz crash package clean

help: ## this list
	@sed -n 's/^\([a-z]*\):.*## /\1\t/p' Makefile | expand -t 12

build: ## release build; the client is build/release/bin/tavrin
	@scripts/install-deps.sh
	@scripts/build-patch-tools.sh
	@scripts/fetch-duckdb.sh
	@cmake --preset release
	@cmake --build --preset release -j $(JOBS)

run: build ## build, then show the client at work on a real game
	@scripts/demo.sh

test: build ## build, then run all tests
	@scripts/install-deps.sh wine
	@ctest --preset release -j 2

crash: build ## only the tests that kill a job at every durable step
	@ctest --preset release -j 2 -L crash

servers: build ## build, then play from real web servers and over bad links, as root; SERVERS_ARGS go to tests/servers/run.py
	@scripts/install-deps.sh servers
	@PATH="$$PATH:/usr/sbin" tests/servers/run.py $(SERVERS_ARGS)

storage: build ## build, then write to drives with real programs and kill their service, as root; STORAGE_ARGS go to tests/storage/run.py
	@scripts/install-deps.sh storage
	@PATH="$$PATH:/usr/sbin" tests/storage/run.py $(STORAGE_ARGS)

bench: ## build and run the benchmarks, as root also those against PEERS; BENCH_ARGS and PEERS_ARGS go to them
	@scripts/install-deps.sh peers
	@scripts/build-patch-tools.sh
	@scripts/fetch-duckdb.sh
	@cmake --preset bench
	@cmake --build --preset bench -j $(JOBS)
	@set -e; for program in $$(find build/bench/bench -maxdepth 1 -type f -executable | sort); do echo "== $${program##*/}"; $$program $(BENCH_ARGS); done
	@if [ "$$(id -u)" != 0 ]; then echo "bench/peers is left out: it needs root"; else set -e; for script in $(PEERS); do echo "== peers: $${script##*/}"; $$script $(PEERS_ARGS); done; fi

lint: ## layout, layering, clang-tidy
	@scripts/install-deps.sh lint
	@scripts/lint.sh $(JOBS)

asan: ## all tests under AddressSanitizer and UndefinedBehaviorSanitizer
	@scripts/install-deps.sh clang
	@cmake --preset asan
	@cmake --build --preset asan -j $(JOBS)
	@ctest --preset asan -j 2

tsan: ## all tests under ThreadSanitizer
	@scripts/install-deps.sh clang
	@cmake --preset tsan
	@cmake --build --preset tsan -j $(JOBS)
	@$(NO_ASLR) ctest --preset tsan -j 2

fuzz: ## each fuzz program for SECONDS (60)
	@scripts/install-deps.sh fuzz
	@cmake --preset fuzz
	@cmake --build --preset fuzz -j $(JOBS)
	@scripts/fuzz.sh $(SECONDS)

package: ## Debian packages, in build/package
	@scripts/install-deps.sh package
	@scripts/build-patch-tools.sh
	@scripts/fetch-duckdb.sh
	@cmake --preset package
	@cmake --build --preset package -j $(JOBS)
	@cd build/package && cpack

clean: ## remove all that was built
	@rm -rf build

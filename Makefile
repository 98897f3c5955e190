# Thin wrapper over CMake: every target installs what is missing first, so a
# fresh machine needs nothing but `make demo` or `make check`.
BUILD ?= build
JOBS ?= $(shell nproc)
FUZZ_RUNS ?= 1000000
CMAKE_FLAGS ?=

.PHONY: all deps build check demo bench fuzz coverage sanitize clean

all: build

deps:
	@scripts/install-deps

build: deps
	@test -f $(BUILD)/build.ninja || cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)
	@cmake --build $(BUILD) -j $(JOBS)

check: build
	@scripts/test-setup $(BUILD)
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 300

# The demo needs only the bridge and the simulator's bundles, not the tests and
# benchmarks that make up most of a full build.
demo: deps
	@test -f $(BUILD)/build.ninja || cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)
	@cmake --build $(BUILD) -j $(JOBS) --target vantoric-studio-mcp studio-sim-bundles
	@scripts/demo $(BUILD)

bench: deps
	@test -f build-bench/build.ninja || cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DVSM_TESTS=OFF
	@cmake --build build-bench -j $(JOBS)
	@scripts/bench build-bench

fuzz: deps
	@test -f build-fuzz/build.ninja || CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVSM_FUZZ=ON
	@cmake --build build-fuzz -j $(JOBS)
	@scripts/fuzz build-fuzz $(FUZZ_RUNS)

# Line and branch coverage of src/ by the whole test suite: the guard that a
# reshaping of the tests loses nothing they checked.
coverage: deps
	@test -f build-coverage/build.ninja || cmake -S . -B build-coverage -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVSM_COVERAGE=ON -DVSM_BENCH=OFF
	@cmake --build build-coverage -j $(JOBS)
	@scripts/test-setup build-coverage
	@find build-coverage -name '*.gcda' -delete
	@cd build-coverage && ctest -j $(JOBS) --timeout 600 >ctest.log || { tail -40 ctest.log; exit 1; }
	@scripts/coverage-report build-coverage build-coverage/coverage.txt
	@echo "coverage: per-file figures in build-coverage/coverage.txt"

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer, then
# the suites of the threaded parts (link, server, file tools) under
# ThreadSanitizer. The bridge and the simulator that the tests start are
# built the same way; their reports go to files, and any report fails.
sanitize: deps
	@test -f build-asan/build.ninja || cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVSM_SANITIZE=ON -DVSM_BENCH=OFF
	@cmake --build build-asan -j $(JOBS)
	@scripts/test-setup build-asan
	@VSM_TEST_TIME_SCALE=4 scripts/sanitize build-asan "" ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1
	@test -f build-tsan/build.ninja || cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVSM_TSAN=ON -DVSM_BENCH=OFF
	@cmake --build build-tsan -j $(JOBS)
	@scripts/test-setup build-tsan
	@VSM_TEST_TIME_SCALE=8 scripts/sanitize build-tsan "link|server|files" TSAN_OPTIONS=second_deadlock_stack=1:suppressions=$(CURDIR)/scripts/tsan.supp

clean:
	rm -rf $(BUILD) build-bench build-fuzz build-coverage build-asan build-tsan

# Thin wrapper over CMake: every target installs what is missing first, so a
# fresh machine needs nothing but `make demo` or `make check`.
BUILD ?= build
JOBS ?= $(shell nproc)
FUZZ_RUNS ?= 1000000
CMAKE_FLAGS ?=

.PHONY: all deps build check demo bench fuzz clean

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

clean:
	rm -rf $(BUILD) build-bench build-fuzz

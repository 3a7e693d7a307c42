# SORVA — the two commands for a fresh machine are `make run` and `make test`.
# Every target installs what is missing first, then configures and builds as needed.

JOBS      ?= $(shell nproc)
BUILD     ?= build
TSAN      ?= build-tsan
ASAN      ?= build-asan
CMAKE_ARGS ?=

.PHONY: all deps build run test bench sanitize clean

all: build

deps:
	@scripts/install-deps

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  "-DSORVA_EXTRA_TEST_DIRS=$(abspath $(ASAN));$(abspath $(TSAN))" $(CMAKE_ARGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

run: build
	@scripts/run-sorva $(BUILD)

# Sanitizer builds of everything that runs without Qt: the DSP blocks, the log,
# the lifecycle coordinator, the engines on the simulated backend.
sanitize: deps
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=Debug -DSORVA_BUILD_APP=OFF -DSORVA_SANITIZE=address
	cmake --build $(ASAN) -j $(JOBS)
	cmake -S . -B $(TSAN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSORVA_BUILD_APP=OFF -DSORVA_SANITIZE=thread
	cmake --build $(TSAN) -j $(JOBS)

# Every test runs once: a test that fails only now and then is a fault to find,
# not one to hide behind a second run.
test: build sanitize
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 1500

bench: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DSORVA_BUILD_TESTS=OFF -DSORVA_BUILD_BENCH=ON
	cmake --build build-bench -j $(JOBS)
	@scripts/run-bench build-bench

clean:
	rm -rf $(BUILD) $(TSAN) $(ASAN) build-bench

# SORVA — the two commands for a fresh machine are `make run` and `make test`.
# Every target installs what is missing first, then configures and builds as needed.

JOBS      ?= $(shell nproc)
BUILD     ?= build
TSAN      ?= build-tsan
ASAN      ?= build-asan
FUZZ      ?= build-fuzz
CMAKE_ARGS ?=
# Seconds per fuzz target: `make fuzz` searches, `make test` only replays the
# seeds and tries a few seconds of new inputs.
FUZZ_SECONDS ?= 300
FUZZ_SMOKE_SECONDS ?= 5

.PHONY: all deps build run test bench sanitize fuzz fuzz-build fuzz-smoke clean install package

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

# For this user only: ~/.local/bin/sorva, its menu entry and its icon.
PREFIX ?= $(HOME)/.local
install: build
	cmake --install $(BUILD) --prefix $(PREFIX)
	-@command -v update-desktop-database >/dev/null && update-desktop-database -q $(PREFIX)/share/applications
	-@command -v gtk-update-icon-cache >/dev/null && gtk-update-icon-cache -q -t $(PREFIX)/share/icons/hicolor

# The Debian package: $(BUILD)/sorva_VERSION_ARCH.deb, for `apt install ./sorva_*.deb`.
package: build
	cd $(BUILD) && cpack -G DEB

# Sanitizer builds of everything that runs without Qt: the DSP blocks, the log,
# the lifecycle coordinator, the engines on the simulated backend.
sanitize: deps
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=Debug -DSORVA_BUILD_APP=OFF -DSORVA_SANITIZE=address
	cmake --build $(ASAN) -j $(JOBS)
	cmake -S . -B $(TSAN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSORVA_BUILD_APP=OFF -DSORVA_SANITIZE=thread
	cmake --build $(TSAN) -j $(JOBS)

# libFuzzer targets for the settings reader, the routing journal and the
# input side of `sorva process`: a clang build of only the sources they need.
fuzz-build: deps
	CC=clang-14 CXX=clang++-14 cmake -S fuzz -B $(FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(FUZZ) -j $(JOBS)

fuzz: fuzz-build
	scripts/run-fuzz $(FUZZ) $(FUZZ_SECONDS)

fuzz-smoke: fuzz-build
	scripts/run-fuzz $(FUZZ) $(FUZZ_SMOKE_SECONDS)

# Every test runs once: a test that fails only now and then is a fault to find,
# not one to hide behind a second run.
test: build sanitize fuzz-smoke
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 1500
	@if [ -x $(BUILD)/tests/render-views ]; then \
	  QT_QPA_PLATFORM=offscreen $(BUILD)/tests/render-views $(BUILD)/views-png && \
	  echo "The views in their edge-case states, for a look: $(BUILD)/views-png/"; fi

bench: deps
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DSORVA_BUILD_TESTS=OFF -DSORVA_BUILD_BENCH=ON
	cmake --build build-bench -j $(JOBS)
	@scripts/run-bench build-bench

clean:
	rm -rf $(BUILD) $(TSAN) $(ASAN) $(FUZZ) build-bench

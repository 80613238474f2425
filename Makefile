# Daskel: the two commands a newcomer needs are `make run` and `make test`.
# Everything else here is for developers.

BUILD_DIR  ?= build
ASAN_DIR   ?= build-asan
TSAN_DIR   ?= build-tsan
JOBS       ?= $(shell nproc)
CTEST_ARGS ?=

.PHONY: all run fuzz deps configure build test test-sanitize test-asan test-tsan bench format clean

all: build

deps:
	@scripts/install-deps

$(BUILD_DIR)/build.ninja: | deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo

configure: $(BUILD_DIR)/build.ninja

build: deps configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD_DIR) --output-on-failure -j $(JOBS) $(CTEST_ARGS)

# The same tests in an ASan+UBSan build and in a TSan build.
test-sanitize: test-asan test-tsan

test-asan: deps
	cmake -S . -B $(ASAN_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DDASKEL_SANITIZE=address -DDASKEL_BUILD_BENCH=OFF
	cmake --build $(ASAN_DIR) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(ASAN_DIR) --output-on-failure -j $(JOBS) $(CTEST_ARGS)

test-tsan: deps
	cmake -S . -B $(TSAN_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DDASKEL_SANITIZE=thread -DDASKEL_BUILD_BENCH=OFF
	cmake --build $(TSAN_DIR) -j $(JOBS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --test-dir $(TSAN_DIR) --output-on-failure -j $(JOBS) $(CTEST_ARGS)

# Builds, lays out a demo installation under build/demo and runs daskeld in the foreground.
run: deps configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target daskeld daskelctl local-folder-provider
	scripts/run-demo $(BUILD_DIR)

# Runs every benchmark and writes build/bench/summary.json.
bench: build
	scripts/run-benchmarks $(BUILD_DIR)

# Builds the wire fuzzer with clang, libFuzzer, ASan and UBSan, and runs it for
# FUZZ_SECONDS (default 60).
fuzz:
	@scripts/install-deps fuzz
	scripts/fuzz

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf $(BUILD_DIR) $(ASAN_DIR) $(TSAN_DIR)

# Entry points; CMake does the real work.
#   make test    install what is missing, build, run the whole test suite
#   make demo    install what is missing, build, run the end-to-end demo
#   make bench   build and run the benchmarks (with the peers they compare to)
#   make bench-m32  the recording and reading benchmarks as 32-bit code
#   make fuzz    build the fuzz targets with clang and run each FUZZ_SECONDS (60), then
#                FUZZ_M32_SECONDS (20) in a 32-bit build
#   make tidy    run clang-tidy (.clang-tidy) over the libraries and the tool
#   make soak    record SOAK_EVENTS (10000000) events in a native and a 32-bit build; steady memory
#   make differential  check the store reader against DIFFERENTIAL_INPUTS (1000000) real restores
BUILD ?= build
CMAKE_ARGS ?=
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: test demo bench bench-m32 fuzz tidy differential soak clean

test:
	@scripts/ensure-deps.sh test
	cmake -S . -B $(BUILD) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

# The demo shares the build tree with the tests, whose configuration needs
# GoogleTest, so it installs the same packages.
demo:
	@scripts/ensure-deps.sh test
	cmake -S . -B $(BUILD) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j$(JOBS) --target kronlog_tool
	$(BUILD)/tools/kronlog demo --store $(BUILD)/demo-store

bench:
	@scripts/ensure-deps.sh bench
	cmake -S . -B $(BUILD)-bench -DCMAKE_BUILD_TYPE=Release -DKRONLOG_BUILD_TESTS=OFF -DKRONLOG_BUILD_BENCHMARKS=ON $(CMAKE_ARGS)
	cmake --build $(BUILD)-bench -j$(JOBS) --target bench

# The recording and reading benchmarks as 32-bit code, the device's: event
# cost and heap per entry against spdlog, reads against the plain method.
bench-m32:
	@scripts/ensure-deps.sh bench-m32
	cmake -S . -B $(BUILD)-bench-m32 -DCMAKE_BUILD_TYPE=Release -DKRONLOG_M32=ON -DKRONLOG_BUILD_TESTS=OFF -DKRONLOG_BUILD_TOOLS=OFF -DKRONLOG_BUILD_BENCHMARKS=ON $$(scripts/ensure-32bit-exec.sh) $(CMAKE_ARGS)
	cmake --build $(BUILD)-bench-m32 -j$(JOBS) --target writer_bench reader_bench
	$(BUILD)-bench-m32/bench/writer_bench
	$(BUILD)-bench-m32/bench/reader_bench

# Then the same targets as 32-bit code, FUZZ_M32_SECONDS (20) each: sizes
# and offsets are 32 bits wide on the device, and so are its overflows.
# Where the kernel runs 32-bit programs only through qemu-i386, they run
# under UBSan alone: there AddressSanitizer's 32-bit allocator is handed
# memory it keeps no shadow for and stops in a check of its own.
FUZZ_SECONDS ?= 60
FUZZ_M32_SECONDS ?= 20
FUZZ_CMAKE_ARGS = -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKRONLOG_BUILD_FUZZERS=ON -DKRONLOG_BUILD_TESTS=OFF -DKRONLOG_BUILD_TOOLS=OFF -DKRONLOG_INSTALL=OFF
fuzz:
	@scripts/ensure-deps.sh fuzz
	cmake -S . -B $(BUILD)-fuzz $(FUZZ_CMAKE_ARGS) -DKRONLOG_FUZZ_SECONDS=$(FUZZ_SECONDS) $(CMAKE_ARGS)
	cmake --build $(BUILD)-fuzz -j$(JOBS) --target fuzz
	@emulator=$$(scripts/ensure-32bit-exec.sh) || exit 1; \
	sanitizers=address,undefined; \
	if [ -n "$$emulator" ]; then \
	  echo "make fuzz: 32-bit code runs through qemu-i386 here: fuzzing it under UBSan alone"; \
	  sanitizers=undefined; \
	fi; \
	set -x; \
	cmake -S . -B $(BUILD)-fuzz-m32 $(FUZZ_CMAKE_ARGS) -DKRONLOG_M32=ON -DKRONLOG_FUZZ_SANITIZERS=$$sanitizers $$emulator -DKRONLOG_FUZZ_SECONDS=$(FUZZ_M32_SECONDS) $(CMAKE_ARGS) && \
	cmake --build $(BUILD)-fuzz-m32 -j$(JOBS) --target fuzz

# Ten million events recorded, read, saved and followed, in the native and
# the 32-bit build (run through qemu where the kernel cannot run it): prints
# the resident set and live object counts, measured from the millionth event.
SOAK_EVENTS ?= 10000000
soak:
	@scripts/ensure-deps.sh test m32
	cmake -S . -B $(BUILD) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j$(JOBS) --target kronlog_soak
	@echo "=== soak, native build"
	$(BUILD)/tests/kronlog_soak $(SOAK_EVENTS) 1000000
	cmake -S . -B $(BUILD)-m32 -DKRONLOG_M32=ON $$(scripts/ensure-32bit-exec.sh) $(CMAKE_ARGS)
	cmake --build $(BUILD)-m32 -j$(JOBS) --target kronlog_soak
	@echo "=== soak, 32-bit build"
	$(BUILD)-m32/tests/kronlog_soak $(SOAK_EVENTS) 1000000

# The store reader's verdict against real restores, over generated and
# mutated store files, in JOBS shards of their own seeds; fails on any
# disagreement (each shard keeps its first in $(BUILD)/tests/differential-first-K.store).
DIFFERENTIAL_INPUTS ?= 1000000
differential:
	@scripts/ensure-deps.sh test
	cmake -S . -B $(BUILD) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j$(JOBS) --target store_differential
	@cd $(BUILD)/tests && pids= && \
	for k in $$(seq 1 $(JOBS)); do \
	  n=$$(( $(DIFFERENTIAL_INPUTS) / $(JOBS) + ($$k == 1 ? $(DIFFERENTIAL_INPUTS) % $(JOBS) : 0) )); \
	  ./store_differential $$n $$k --corpus $(CURDIR)/fuzz/corpus/store_read_fuzz \
	    --first differential-first-$$k.store > differential-$$k.log & pids="$$pids $$!"; \
	done; \
	status=0; for p in $$pids; do wait $$p || status=1; done; \
	for k in $$(seq 1 $(JOBS)); do echo "--- shard $$k"; cat differential-$$k.log; done; \
	echo "disagreements in all: $$(awk '/^disagreements:/ {n += $$2} END {print n}' differential-*.log)"; \
	exit $$status

# The sources of libqel, libkronlog and the kronlog command, tests left out.
# clang-tidy reads the flags from the build tree's compile_commands.json, so
# configuring is enough; .clang-tidy turns every warning into an error.
TIDY_SOURCES = $(shell find qel writer reader persistence support tools -name '*.cpp' ! -name '*Test.cpp' | sort)
tidy:
	@scripts/ensure-deps.sh tidy
	cmake -S . -B $(BUILD) $(CMAKE_ARGS)
	run-clang-tidy-14 -quiet -j$(JOBS) -p $(BUILD) $(abspath $(TIDY_SOURCES))

clean:
	rm -rf $(BUILD) $(BUILD)-bench $(BUILD)-bench-m32 $(BUILD)-fuzz $(BUILD)-fuzz-m32 $(BUILD)-m32

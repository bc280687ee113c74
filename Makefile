# Entry points; CMake does the real work.
#   make test    install what is missing, build, run the whole test suite
#   make demo    install what is missing, build, run the end-to-end demo
#   make bench   build and run the benchmarks (with the peers they compare to)
BUILD ?= build
CMAKE_ARGS ?=
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: test demo bench clean

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

clean:
	rm -rf $(BUILD) $(BUILD)-bench

# Two commands for a newcomer: `make demo` and `make test`. Both install what they need.
.PHONY: deps build demo test test-default test-asan test-tsan test-fuzz fuzz soak install clean

deps:
	bash scripts/install-deps

# Configures and builds one CMake preset.
build_preset = cmake --preset $(1) && cmake --build --preset $(1)

build: deps
	$(call build_preset,default)

demo: build
	./build/bin/artifact-detect samples/

# test-fuzz: every fuzz target over its committed corpus, then AD_FUZZ_SECONDS (30) of fresh
# inputs.
test-default test-asan test-tsan test-fuzz: test-%: deps
	$(call build_preset,$*)
	ctest --preset $*

test: test-default test-asan test-tsan test-fuzz

# Longer fuzzing: FUZZ_SECONDS (60) per target, building on the inputs earlier runs found
# (kept in build-fuzz/fuzz/work/<target>/kept); see docs/reliability.md.
fuzz: deps
	$(call build_preset,fuzz)
	AD_FUZZ_SECONDS=$(or $(FUZZ_SECONDS),60) AD_FUZZ_KEEP_CORPUS=1 ctest --preset fuzz

# One detector through 10,000 frames of mixed formats, sizes and rotations on the optimised
# build; see docs/reliability.md.
soak: build
	AD_SOAK_FRAMES=10000 ./build/bin/artifact_detector_impl_soak_test

# Benchmarks against libyuv, OpenCV and memcpy on the optimised build: prints the tables and
# writes them into docs/performance.md. Never part of `make test`.
.PHONY: bench
bench: deps
	cmake --preset default
	cmake --build --preset default --target ad_bench
	./build/bin/ad_bench --report docs/performance.md

install: build
	cmake --install build --prefix $(or $(PREFIX),/usr/local)

clean:
	rm -rf build build-asan build-tsan build-fuzz

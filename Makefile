# Two commands for a newcomer: `make demo` and `make test`. Both install what they need.
.PHONY: deps build demo test test-default test-asan test-tsan install clean

deps:
	bash scripts/install-deps

build: deps
	cmake --preset default
	cmake --build --preset default

demo: build
	./build/bin/artifact-demo

test-default: deps
	cmake --preset default
	cmake --build --preset default
	ctest --preset default

test-asan: deps
	cmake --preset asan
	cmake --build --preset asan
	ctest --preset asan

test-tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan
	ctest --preset tsan

test: test-default test-asan test-tsan

install: build
	cmake --install build --prefix $(or $(PREFIX),/usr/local)

clean:
	rm -rf build build-asan build-tsan

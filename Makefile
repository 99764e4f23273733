# Entry points on a fresh Debian 12 machine (run as root, or with the packages installed):
#   make demo   installs what is missing, builds, and runs the demo of the corvane host on loopback
#   make test   installs what is missing, builds, and runs every test
#   make asan   the tests again in an AddressSanitizer + UndefinedBehaviorSanitizer build
#   make tsan   the threaded tests in a ThreadSanitizer build
#   make fuzz   the parsers' fuzz targets, 30 s each (clang, libFuzzer, ASan + UBSan)
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: deps build test asan tsan fuzz demo bench clean

deps:
	scripts/install-deps

build: deps
	cmake -S . -B build -DCORVANE_WERROR=ON $(CMAKE_FLAGS) >/dev/null
	cmake --build build -j $(JOBS)

test: build
	cd build && ctest --output-on-failure -j $(JOBS)

asan: deps
	cmake -S . -B build-asan -DCORVANE_SANITIZE=asan -DCMAKE_BUILD_TYPE=Debug -DCORVANE_WERROR=ON >/dev/null
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ctest --output-on-failure -j $(JOBS)

tsan: deps
	cmake -S . -B build-tsan -DCORVANE_SANITIZE=tsan -DCMAKE_BUILD_TYPE=Debug -DCORVANE_WERROR=ON >/dev/null
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && ctest --output-on-failure -j $(JOBS) -L threads

fuzz: deps
	tests/fuzz/run 30

demo: build
	scripts/demo

bench: build
	bench/run

clean:
	rm -rf build build-asan build-tsan build-fuzz

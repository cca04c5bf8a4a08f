# The two set-up commands:
#   make demo   installs what is missing to build, builds only the ovl program and the
#               overlay module, and runs the main job
#   make test   installs what is missing to test, builds everything, and runs every test:
#               the normal build, an AddressSanitizer+UndefinedBehaviorSanitizer build, a
#               ThreadSanitizer build of the tests labelled "concurrency", and a Clang
#               build that checks the lock annotations and runs the tests labelled "core"
# Other targets: build (everything, with tests and benchmarks), bench, demo-s3 (the
# demo over a throw-away Ceph S3 gateway), clean.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: setup setup-test build demo demo-s3 test test-release test-asan test-tsan test-clang bench clean

setup:
	@scripts/setup.sh

setup-test:
	@scripts/setup.sh --test

# The demo's first run configures build/release without tests and benchmarks (their
# packages need not be there yet); build turns them on in the same folder, so the
# objects the demo built are reused.
build/release/CMakeCache.txt: | setup
	@cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOVL_BUILD_TESTS=OFF -DOVL_BUILD_BENCH=OFF \
	  $(CMAKE_FLAGS) >/dev/null

build: setup-test
	@cmake -S . -B build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOVL_BUILD_TESTS=ON -DOVL_BUILD_BENCH=ON \
	  $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/release -j $(JOBS)

demo: setup build/release/CMakeCache.txt
	@cmake --build build/release -j $(JOBS) --target ovl
	@build/release/tools/ovl demo

# The demo with an S3 bucket as its store: starts a throw-away Ceph gateway on loopback,
# runs the demo in its bucket (the store's own latency, changes polled every second) and
# stops the gateway again.
demo-s3: setup-test build/release/CMakeCache.txt
	@cmake --build build/release -j $(JOBS) --target ovl
	@scripts/ceph-s3.sh start build/demo-s3-gateway >/dev/null
	@set -a; . build/demo-s3-gateway/env; set +a; \
	  build/release/tools/ovl demo --inner s3://$$OVL_S3_BUCKET/ --latency-ms 0 --mbps 0 --set s3.poll_interval_ms=1000; \
	  status=$$?; scripts/ceph-s3.sh stop build/demo-s3-gateway; exit $$status

test: test-release test-asan test-tsan test-clang
	@echo "All test runs passed."

test-release: build
	@cd build/release && ctest --output-on-failure -j $(JOBS)

test-asan: setup-test
	@cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=Debug -DOVL_SANITIZE=address -DOVL_BUILD_BENCH=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/asan -j $(JOBS)
	@cd build/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

test-tsan: setup-test
	@cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=Debug -DOVL_SANITIZE=thread -DOVL_TEST_LABEL=concurrency \
	  -DOVL_BUILD_BENCH=OFF -DOVL_BUILD_TOOLS=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/tsan -j $(JOBS)
	@cd build/tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest --output-on-failure -L concurrency -j $(JOBS)

# Clang with -Wthread-safety as errors (OVL_THREAD_SAFETY_ANALYSIS): a GUARDED_BY member
# touched without its lock, or a REQUIRES function called without it, fails the build.
# Every warning is an error here, and each file is compiled on its own includes only (no
# precompiled headers), so this build also shows a missing include.
test-clang: setup-test
	@cmake -S . -B build/clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=Debug -DOVL_TEST_LABEL=core \
	  -DCMAKE_CXX_FLAGS=-Werror -DOVL_PRECOMPILED_HEADERS=OFF \
	  -DOVL_BUILD_BENCH=OFF -DOVL_BUILD_TOOLS=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build/clang -j $(JOBS)
	@cd build/clang && ctest --output-on-failure -L core -j $(JOBS)

bench: build
	@for b in build/release/bench/*_bench; do echo "== $$b"; $$b; done
	@bash bench/mount_bench.sh build/release/tools/ovl || [ $$? = 77 ]
	@bash bench/mount_scale_bench.sh build/release/tools/ovl || [ $$? = 77 ]
	@bash bench/s3_bench.sh build/release/tools/ovl || [ $$? = 77 ]

clean:
	@rm -rf build

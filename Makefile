# Tessera: `make test` installs what it needs, builds and runs the whole
# suite in a release build and under the sanitizers.
JOBS ?= $(shell nproc)
CTEST = ctest --output-on-failure -j$(JOBS) --test-dir

.PHONY: all deps build demo farm-demo view-demo docs test test-release test-asan test-tsan test-fuzz \
	build-fuzz fuzz bench format clean

all: build

deps:
	@scripts/install-deps

CONFIGURE = cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release

build: deps
	$(CONFIGURE)
	cmake --build build/release -j$(JOBS)

# Renders the built-in demo graph to out/demo.exr and out/demo.png; builds
# only the library and the command (the tests build under `make test`).
demo: deps
	$(CONFIGURE)
	cmake --build build/release -j$(JOBS) --target tessera_cli
	build/release/tools/tessera/tessera demo --stats

# Renders the example shot (examples/sequence, 48 frames) to out/shot/ on a
# local Dask cluster of two worker processes, and prints the summary.
farm-demo: deps
	$(CONFIGURE)
	cmake --build build/release -j$(JOBS) --target tessera_python
	build/release/tools/tessera-farm examples/sequence/shot.json --workers 2 --chunk 8

# Serves the demo graph to the browser: open the URL it prints (Ctrl-C stops).
view-demo: deps
	$(CONFIGURE)
	cmake --build build/release -j$(JOBS) --target tessera_cli tessera_python
	build/release/tools/tessera/tessera view examples/demo.json

test: test-release test-asan test-tsan test-fuzz

# The operator reference (generated from the operators' declarations), the
# manual page (build/release/tools/tessera/tessera.1) and the API reference
# of the public headers (build/docs/api/html).
docs: build
	build/release/tools/tessera/tessera ops --markdown > docs/operators.md
	rm -rf docs/operators && build/release/tools/tessera/tessera ops --pictures docs/operators
	mkdir -p build/docs && cd build/docs && ../release/tools/tessera/tessera demo -q && cp out/demo.png ../../docs/demo.png
	cmake --build build/release --target tessera_man
	mkdir -p build/docs && doxygen docs/Doxyfile

# Compares whole pipelines with libvips, OpenImageIO and GEGL on this machine
# (in memory, then file to file against oiiotool and the vips command) and
# writes the tables to docs/performance.md.
bench:
	@scripts/install-deps --bench
	$(CONFIGURE)
	cmake --build build/release -j$(JOBS) --target tessera_bench_compare
	build/release/bench/tessera_bench_compare --out docs/performance.md
	cmake --build build/release -j$(JOBS) --target tessera_cli tessera_python
	/usr/bin/python3 bench/files/filebench.py --tessera build/release/tools/tessera/tessera \
	  --out docs/performance.md --big
	/usr/bin/python3 bench/graphs/graphbench.py --tessera build/release/tools/tessera/tessera \
	  --out docs/performance.md
	/usr/bin/python3 bench/farm/farmbench.py --tessera build/release/tools/tessera/tessera \
	  --farm build/release/tools/tessera-farm --out docs/performance.md

test-release: build
	$(CTEST) build/release

# AddressSanitizer and UndefinedBehaviorSanitizer in one build.
test-asan: deps
	cmake -S . -B build/asan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTESSERA_SANITIZE=address,undefined \
	  -DTESSERA_BUILD_BENCH=OFF
	cmake --build build/asan -j$(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 $(CTEST) build/asan

# The libFuzzer targets (fuzz/), built with clang under ASan and UBSan:
# `make test` replays every crash ever found (tests/fuzz/regressions) and
# fuzzes each target briefly; `make fuzz` fuzzes each for FUZZ_SECONDS.
FUZZ_SECONDS ?= 600
build-fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B build/fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTESSERA_FUZZ=ON
	cmake --build build/fuzz -j$(JOBS)

test-fuzz: build-fuzz
	scripts/fuzz replay
	scripts/fuzz run 20

fuzz: build-fuzz
	scripts/fuzz replay
	scripts/fuzz run $(FUZZ_SECONDS)

test-tsan: deps
	cmake -S . -B build/tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTESSERA_SANITIZE=thread \
	  -DTESSERA_BUILD_BENCH=OFF
	cmake --build build/tsan -j$(JOBS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/tests/tsan.supp $(CTEST) build/tsan

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build out

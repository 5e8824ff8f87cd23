# make test       install what the project needs, build, run every test
# make test-asan  the same under AddressSanitizer and UndefinedBehaviorSanitizer
# make run        build and show the program at work: a short session, as a transcript
# make agent      the same setup, left running until Ctrl-C for you to try by hand
# make install    install the client's agent and tools (as root; DESTDIR honoured)
# make package    build the Debian package build/veskagent_VERSION_ARCH.deb
# make bench      build and run the benchmarks in bench/
# make fuzz       build the fuzz targets in fuzz/ with clang and run each for FUZZ_SECONDS

BUILD      := build
ASAN_BUILD := build-asan
BENCH_BUILD:= build-bench
FUZZ_BUILD := build-fuzz
FUZZ_SECONDS ?= 60
CMAKE_GEN  := -G Ninja

.PHONY: all deps build test test-asan run agent install package bench fuzz format clean

all: build

deps:
	@scripts/install-deps

build: deps
	@cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD) -j2

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j2

test-asan: deps
	@cmake -S . -B $(ASAN_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DVESK_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j2
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:halt_on_error=1 \
	UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j2

run: quiet-build
	@scripts/demo $(BUILD)

agent: quiet-build
	@scripts/demo --interactive $(BUILD)

install: build
	cmake --install $(BUILD)
	@[ -n "$(DESTDIR)" ] || packaging/debian/postinst configure

package: build
	cd $(BUILD) && cpack -G DEB

.PHONY: quiet-build
quiet-build: deps
	@cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD) -j2 >/dev/null || cmake --build $(BUILD) -j2

bench: deps
	@cmake -S . -B $(BENCH_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Release -DVESK_BUILD_BENCH=ON -DVESK_BUILD_TESTS=OFF >/dev/null
	@cmake --build $(BENCH_BUILD) -j2
	@bench/report $(BENCH_BUILD)

fuzz: deps
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVESK_FUZZ=ON -DVESK_BUILD_TESTS=OFF >/dev/null
	@cmake --build $(FUZZ_BUILD) -j2
	@scripts/fuzz $(FUZZ_BUILD) $(FUZZ_SECONDS)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(BENCH_BUILD) $(FUZZ_BUILD)

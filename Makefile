# Two commands do everything on a fresh machine: `make test` and `make demo`.
BUILD      ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
# The builds' own progress is enough; no "Entering directory" lines around it.
MAKEFLAGS  += --no-print-directory

.PHONY: all deps configure build test demo asan tsan bench crash-campaign format clean fuzz fuzz-build fuzz-replay

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)
	@$(MAKE) --no-print-directory fuzz-replay

# The bundled example: a shopper's walk through a store, on virtual time, with the operator's
# server embedded. The map of the walk goes to $(BUILD)/shopper.svg, the run report (map, timeline,
# campaigns, documents received) to $(BUILD)/shopper.html.
demo: build
	@$(BUILD)/bin/lurewave-sim run examples/shopper.json --svg $(BUILD)/shopper.svg --report $(BUILD)/shopper.html

# AddressSanitizer + UndefinedBehaviorSanitizer over the whole suite.
asan:
	@$(MAKE) --no-print-directory test BUILD=build-asan BUILD_TYPE=Debug CMAKE_ARGS="-DQUENBY_SANITIZE=address"

# ThreadSanitizer over the whole suite.
tsan:
	@$(MAKE) --no-print-directory test BUILD=build-tsan BUILD_TYPE=Debug CMAKE_ARGS="-DQUENBY_SANITIZE=thread"

bench: build
	@for b in $(BUILD)/bin/bench_*; do [ -x "$$b" ] && "$$b"; done

# A thousand SIGKILLs of a host while it records and uploads; prints the totals (README: Kill -9
# campaign). SEED picks another kill plan.
SEED ?= 1
crash-campaign: configure
	@cmake --build $(BUILD) --target crash-campaign -j $(JOBS)
	@nice $(BUILD)/bin/crash-campaign --kills 1000 --seed $(SEED) --verbose

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

# Fuzzing (see README, "Fuzzing"). The targets are built with clang, libFuzzer and ASan+UBSan in
# build-fuzz/, and each runs until FUZZ_RUNS executions or FUZZ_SECONDS, whichever comes first,
# niced, FUZZ_JOBS targets at a time. New inputs go to build-fuzz/corpus/<target>/ (the seeds in
# fuzz/corpus/ stay as they are), crashes to build-fuzz/crashes/<target>/.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_RUNS    ?= -1
FUZZ_JOBS    ?= 1
FUZZ_TARGETS ?= kit kit_cache status feed campaign_records state plist json image_matcher scenario ibeacon gpsd bluez
FUZZ_FLAGS   ?= -rss_limit_mb=2048 -malloc_limit_mb=2048 -timeout=10

fuzz-build: deps
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DQUENBY_FUZZ=ON -DQUENBY_BUILD_TESTS=OFF \
	  -DCMAKE_BUILD_TYPE= -DCMAKE_CXX_FLAGS="-O1 -g" $(CMAKE_ARGS) >/dev/null
	@cmake --build $(FUZZ_BUILD) --target fuzz_all -j $(JOBS)

fuzz: fuzz-build
	@printf '%s\n' $(FUZZ_TARGETS) | xargs -P $(FUZZ_JOBS) -I{} sh -c '\
	  mkdir -p $(FUZZ_BUILD)/corpus/{} $(FUZZ_BUILD)/crashes/{}; \
	  nice $(FUZZ_BUILD)/bin/fuzz_{} $(FUZZ_FLAGS) -runs=$(FUZZ_RUNS) -max_total_time=$(FUZZ_SECONDS) \
	    -print_final_stats=1 -artifact_prefix=$(FUZZ_BUILD)/crashes/{}/ \
	    $(FUZZ_BUILD)/corpus/{} fuzz/corpus/{} >$(FUZZ_BUILD)/{}.log 2>&1; \
	  fuzz/summary.sh {} $(FUZZ_BUILD)/{}.log $(FUZZ_BUILD)/crashes/{}'

# Every seed and every crash ever kept in fuzz/, replayed once under ASan+UBSan (gcc, no
# libFuzzer): a separate build of only the libraries the targets need. Part of `make test`; it
# takes none of CMAKE_ARGS, which `make asan`/`make tsan` fill for their own builds.
FUZZ_REPLAY_BUILD ?= build-fuzz-replay
FUZZ_REPLAY_ARGS  ?=
fuzz-replay: deps
	@cmake -S . -B $(FUZZ_REPLAY_BUILD) -DCMAKE_BUILD_TYPE=Debug -DQUENBY_SANITIZE=address \
	  -DQUENBY_FUZZ_REPLAY=ON -DQUENBY_BUILD_TESTS=OFF $(FUZZ_REPLAY_ARGS) >/dev/null
	@cmake --build $(FUZZ_REPLAY_BUILD) --target fuzz_all -j $(JOBS)
	@ctest --test-dir $(FUZZ_REPLAY_BUILD) --output-on-failure -j $(JOBS)

clean:
	@rm -rf build build-asan build-tsan build-fuzz build-fuzz-replay

# Two commands do everything on a fresh machine: `make test` and `make demo`.
BUILD      ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

.PHONY: all deps configure build test demo asan tsan bench crash-campaign format clean

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) $(CMAKE_ARGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

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

clean:
	@rm -rf build build-asan build-tsan

# The two commands of the README:
#   make run   installs what is missing, builds and starts the instrument
#   make test  installs what is missing, builds and runs every test (CTest)
# Both are quick when nothing changed.

BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
BIN := $(BUILD_DIR)/bin

.PHONY: all deps libpd configure build run test bench screenshots startup-time clean

all: build

deps:
	@scripts/install-deps.sh

libpd: deps
	@scripts/build-libpd.sh

$(BUILD_DIR)/CMakeCache.txt: | libpd
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

configure: libpd $(BUILD_DIR)/CMakeCache.txt

build: configure
	cmake --build $(BUILD_DIR) -j$(JOBS)

run: build
	$(BIN)/merrow-tuning-arbo

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j$(JOBS)

bench: build
	@for b in $(BIN)/bench_*; do [ -x "$$b" ] && "$$b"; done

# The README's pictures of the lattice, from the real program under Xvfb.
screenshots: build
	scripts/screenshots.sh $(BUILD_DIR)

# Start-up to the first paint of the window: the median of several runs.
startup-time: build
	scripts/startup-time.sh $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR)

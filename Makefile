# The two commands of the README:
#   make run   installs what building and running need, builds and starts the instrument
#   make test  installs that and the test tools, builds and runs every test (CTest)
# Both are quick when nothing changed. Also:
#   make package       the Debian package, from a build folder of its own without tests
#   make bench         every benchmark but the soak
#   make soak          the real program played for MINUTES (default 10) on a
#                      private display and JACK server; MINUTES=60 for an hour
#   make screenshots   the README's pictures
#   make startup-time  the median time from start to the first paint

BUILD_DIR ?= build
PACKAGE_DIR ?= build-package
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
BIN := $(BUILD_DIR)/bin

.PHONY: all deps-build deps-test libpd configure-run configure-test build-run build-test \
        run test package bench soak screenshots startup-time clean

all: build-run

deps-build:
	@scripts/install-deps.sh build

deps-test:
	@scripts/install-deps.sh test

libpd: deps-build
	@scripts/build-libpd.sh

# A build folder made by `make run` has no tests or benchmarks; `make test`
# turns them on in the same folder (and `make run` keeps what it finds).
configure-run: libpd
	@[ -f $(BUILD_DIR)/CMakeCache.txt ] || cmake -S . -B $(BUILD_DIR) \
	    -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DARBO_BUILD_TESTS=OFF -DARBO_BUILD_BENCHMARKS=OFF

configure-test: deps-test libpd
	@grep -q '^ARBO_BUILD_TESTS:BOOL=ON' $(BUILD_DIR)/CMakeCache.txt 2>/dev/null && \
	 grep -q '^ARBO_BUILD_BENCHMARKS:BOOL=ON' $(BUILD_DIR)/CMakeCache.txt || \
	    cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) \
	        -DARBO_BUILD_TESTS=ON -DARBO_BUILD_BENCHMARKS=ON

build-run: configure-run
	cmake --build $(BUILD_DIR) -j$(JOBS)

build-test: configure-test
	cmake --build $(BUILD_DIR) -j$(JOBS)

run: build-run
	$(BIN)/merrow-tuning-arbo

test: build-test
	cd $(BUILD_DIR) && ctest --output-on-failure -j$(JOBS)

# Debian's hardening and optimisation flags, as a Debian build would use them.
package: export DEB_BUILD_MAINT_OPTIONS = hardening=+all
package: libpd
	@[ -f $(PACKAGE_DIR)/CMakeCache.txt ] || cmake -S . -B $(PACKAGE_DIR) \
	    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DARBO_BUILD_TESTS=OFF -DARBO_BUILD_BENCHMARKS=OFF \
	    -DCMAKE_C_FLAGS="$$(dpkg-buildflags --get CFLAGS) $$(dpkg-buildflags --get CPPFLAGS)" \
	    -DCMAKE_CXX_FLAGS="$$(dpkg-buildflags --get CXXFLAGS) $$(dpkg-buildflags --get CPPFLAGS)" \
	    -DCMAKE_EXE_LINKER_FLAGS="$$(dpkg-buildflags --get LDFLAGS)"
	cmake --build $(PACKAGE_DIR) -j$(JOBS)
	cd $(PACKAGE_DIR) && cpack
	@ls $(PACKAGE_DIR)/*.deb

# The soak runs for minutes, so it has a target of its own.
bench: build-test
	@for b in $(BIN)/bench_*; do [ "$${b##*/}" = bench_soak ] && continue; [ -x "$$b" ] && "$$b"; done

MINUTES ?= 10
soak: build-test
	$(BIN)/bench_soak --minutes $(MINUTES)

# The README's pictures of the lattice, from the real program under Xvfb.
screenshots: build-test
	scripts/screenshots.sh $(BUILD_DIR)

# Start-up to the first paint of the window: the median of several runs.
startup-time: build-test
	scripts/startup-time.sh $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR) $(PACKAGE_DIR)

# Entry points for a fresh Debian 12 machine: `make demo` and `make test`.
# Missing Debian packages are installed first (apt-get, as root or through sudo).

SHELL := /bin/bash
JOBS ?= $(shell nproc)

BUILD_PACKAGES := cmake ninja-build g++ googletest libgtest-dev libgmock-dev \
                  android-liblog-dev android-libbacktrace-dev
# Only the checks need these (ABI description, pkg-config client, Android.bp): `make demo` does not.
TEST_PACKAGES := abigail-tools pkg-config blueprint-tools mini-soong
BENCH_PACKAGES := libbenchmark-dev android-libutils-dev libevent-dev

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

# Installs whatever of $(1) dpkg does not report as installed; $(2) adds apt-get options.
define apt_install
	@missing=""; for p in $(1); do \
	    dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "install ok installed" \
	        || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	    echo "Installing:$$missing"; \
	    $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get update -qq && \
	    $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $(2) $$missing; \
	fi
endef

.PHONY: all deps deps-test deps-bench build demo test test-asan test-tsan test-sanitizers bench install clean

all: build

deps:
	$(call apt_install,$(BUILD_PACKAGES))

deps-test: deps
	$(call apt_install,$(TEST_PACKAGES))

deps-bench: deps
	$(call apt_install,$(BENCH_PACKAGES))

build/default/build.ninja: | deps
	cmake --preset default

build: deps build/default/build.ninja
	cmake --build --preset default -j $(JOBS)

# Only what the demo needs: the library, the platform libraries and the demo itself.
demo: deps build/default/build.ninja
	cmake --build --preset default -j $(JOBS) --target korv_demo
	@mkdir -p /tmp/korv_demo && rm -f /tmp/korv_demo/trace.txt
	QRVCAM_PROPERTIES=$(CURDIR)/examples/demo.properties ./build/default/examples/korv_demo

test: deps-test build
	ctest --preset default -j $(JOBS)

test-asan: deps-test
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS)

test-tsan: deps-test
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan -j $(JOBS)

test-sanitizers: test-asan test-tsan

bench: deps-bench
	cmake --preset default -DTOVRIX_BUILD_BENCH=ON
	cmake --build --preset default -j $(JOBS) --target korv_bench
	./build/default/bench/korv_bench

PREFIX ?= /usr/local
install: build
	cmake --install build/default --prefix $(PREFIX)

# Rewrites abi/ from build/default after a deliberate change of the exported ABI.
.PHONY: abi-baseline
abi-baseline: build
	abi/check.sh update build/default/src/libtovrix_cmt.so

clean:
	rm -rf build

# --- arm64: cross build, tests under qemu-aarch64-static (scripts/arm64/) ---------------------

ARM64_PACKAGES := g++-aarch64-linux-gnu qemu-user-static libgtest-dev:arm64 libgmock-dev:arm64 \
                  android-liblog-dev:arm64 android-libbacktrace-dev:arm64

.PHONY: deps-arm64 test-arm64

deps-arm64: deps-test
	@dpkg --print-foreign-architectures | grep -qx arm64 || $(SUDO) dpkg --add-architecture arm64
	$(call apt_install,$(ARM64_PACKAGES))

test-arm64: deps-arm64
	JOBS=$(JOBS) scripts/arm64/test.sh

# --- vivid: device-call tests against the real V4L2 test driver in a VM (scripts/vivid/) --------

VIVID_PACKAGES := qemu-system-x86 busybox-static cpio kmod file


.PHONY: deps-vivid test-vivid

deps-vivid: deps-test
	$(call apt_install,$(VIVID_PACKAGES),--no-install-recommends)

test-vivid: deps-vivid
	JOBS=$(JOBS) scripts/vivid/test.sh

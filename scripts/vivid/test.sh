#!/usr/bin/env bash
# Runs the device-call tests against the real vivid driver: builds the test programs for the host,
# unpacks Debian's kernel, packs both into an initramfs and boots it under qemu
# (`make test-vivid`, which installs the packages first).
#
# The programs are tests/test_SystemCall*.cpp and tests/test_Vivid*.cpp. Environment: JOBS
# (build jobs), VIVID_HOST_BUILD (below), VIVID_TIMEOUT, VIVID_CPUS, VIVID_MEMORY (see boot.sh),
# VIVID_PARAMS (vivid's module parameters, see make-initramfs.sh).
set -euo pipefail
cd "$(dirname "$0")/../.."

build=$PWD/build/vivid
jobs=${JOBS:-$(nproc)}

scripts/vivid/fetch-kernel.sh "$build/kernel"

# VIVID_HOST_BUILD names an existing host build to take the programs from (CI: build/default,
# already built by `make test`); it is used as it is configured.
host=${VIVID_HOST_BUILD:-$build/host}
if [ ! -f "$host/CMakeCache.txt" ]; then
    cmake -S . -B "$host" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVRIX_BUILD_EXAMPLES=OFF \
          > /dev/null
fi
targets=()
for source in tests/test_SystemCall*.cpp tests/test_Vivid*.cpp; do
    [ -e "$source" ] && targets+=("$(basename "$source" .cpp)")
done
if [ ${#targets[@]} = 0 ]; then
    echo "test-vivid: no tests/test_SystemCall*.cpp or tests/test_Vivid*.cpp" >&2
    exit 1
fi
cmake --build "$host" -j "$jobs" --target "${targets[@]}"

programs=()
for target in "${targets[@]}"; do programs+=("$host/tests/$target"); done
scripts/vivid/make-initramfs.sh "$build/initramfs.cpio.gz" "$build/kernel" "${programs[@]}"
scripts/vivid/boot.sh "$build/kernel" "$build/initramfs.cpio.gz"

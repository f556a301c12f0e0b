#!/usr/bin/env bash
# Cross-builds the library and its tests for arm64 and runs the whole CTest suite under
# qemu-aarch64-static (`make test-arm64`, which installs the packages first).
#
# Environment: JOBS (parallel build and test jobs, default nproc), CTEST_ARGS (extra ctest
# arguments, e.g. "-R Timer").
set -euo pipefail
cd "$(dirname "$0")/../.."

build=$PWD/build/arm64
root=$build/root
jobs=${JOBS:-$(nproc)}

scripts/arm64/make-root.sh "$root"
scripts/arm64/binfmt.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-aarch64.cmake" \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVRIX_ARM64_ROOT="$root"
cmake --build "$build" -j "$jobs"
# shellcheck disable=SC2086
ctest --test-dir "$build" -j "$jobs" --output-on-failure ${CTEST_ARGS:-}

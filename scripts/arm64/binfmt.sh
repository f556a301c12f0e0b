#!/usr/bin/env bash
# Makes arm64 programs executable on this machine through binfmt_misc and qemu-aarch64-static.
#
# CTest starts each test under qemu itself, but a test that starts a program (gtest's death tests
# re-execute the test binary, runSelfChild does too) calls execve() on an arm64 file, which only
# binfmt_misc turns into a qemu run. The registration is Debian's own
# (/usr/lib/binfmt.d/qemu-aarch64.conf, flag F: the interpreter is opened now, so it also works in
# other mount namespaces); the child finds its root through QEMU_LD_PREFIX, inherited from the
# parent. Needs root; without it, say so and carry on: the other tests still run.
set -uo pipefail

conf=/usr/lib/binfmt.d/qemu-aarch64.conf
dir=/proc/sys/fs/binfmt_misc

if [ -e "$dir/qemu-aarch64" ] && grep -q '^enabled' "$dir/qemu-aarch64"; then
    exit 0
fi
if [ ! -e "$dir/register" ]; then
    mount -t binfmt_misc binfmt_misc "$dir" 2>/dev/null || true
fi
if [ -e "$dir/qemu-aarch64" ]; then
    echo 1 > "$dir/qemu-aarch64" 2>/dev/null || true
elif [ -w "$dir/register" ] && [ -f "$conf" ]; then
    cat "$conf" > "$dir/register" 2>/dev/null || true
fi
if [ -e "$dir/qemu-aarch64" ] && grep -q '^enabled' "$dir/qemu-aarch64"; then
    echo "binfmt: arm64 programs run through $(sed -n 's/^interpreter //p' "$dir/qemu-aarch64")"
    exit 0
fi
echo "binfmt: could not register qemu-aarch64 with binfmt_misc; tests that start an arm64" \
     "child process (death tests) will fail" >&2
exit 0

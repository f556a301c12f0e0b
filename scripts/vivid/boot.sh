#!/usr/bin/env bash
# Boots the vivid test VM under qemu-system-x86_64 with TCG (no KVM) and returns its verdict.
#
#   scripts/vivid/boot.sh KERNEL_DIR INITRAMFS
#
# The console (ttyS0) is this script's standard output; the VM's init writes one line per test
# program, "TEST <path> <status>", then "DONE", to its second serial port (ttyS1), a file here.
# Exit status: 0 when every program exited 0, 1 when one failed, 2 when the VM did not get that
# far (module load failed, crash, time-out: VIVID_TIMEOUT seconds, default 900).
set -uo pipefail

kernel=${1:?usage: $0 KERNEL_DIR INITRAMFS}
initramfs=${2:?usage: $0 KERNEL_DIR INITRAMFS}
vmlinuz=$(find "$kernel/boot" -name "vmlinuz-*" | head -1)
result=$(mktemp)
trap 'rm -f "$result"' EXIT

start=$(date +%s.%N)
# -no-reboot with panic=-1: a kernel panic, or init ending, stops qemu instead of looping.
timeout "${VIVID_TIMEOUT:-900}" qemu-system-x86_64 \
    -accel tcg -cpu max -m "${VIVID_MEMORY:-1024}" -smp "${VIVID_CPUS:-1}" \
    -nodefaults -display none -no-reboot -monitor none \
    -kernel "$vmlinuz" -initrd "$initramfs" \
    -append "console=ttyS0 rdinit=/init quiet loglevel=3 panic=-1 ${VIVID_APPEND:-}" \
    -serial stdio -serial "file:$result" < /dev/null
qemu_status=$?
end=$(date +%s.%N)
tr -d '\r' < "$result" > "$result.clean" && mv "$result.clean" "$result"

elapsed=$(awk "BEGIN { printf \"%.1f\", $end - $start }")
echo "--- vivid VM: qemu exited $qemu_status after $elapsed s"
passed=0
failed=0
while read -r kind path status; do
    [ "$kind" = TEST ] || continue
    if [ "$status" = 0 ]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        echo "FAILED (exit $status): $path"
    fi
done < "$result"
grep '^ERROR' "$result"
if ! grep -qx DONE "$result"; then
    echo "the VM stopped before its tests finished" >&2
    exit 2
fi
echo "vivid: $passed passed, $failed failed"
[ "$failed" = 0 ]

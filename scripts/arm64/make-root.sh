#!/usr/bin/env bash
# Builds the root that qemu-aarch64-static runs the arm64 tests in: the arm64 loader and C/C++
# runtime, liblog, libbase, libbacktrace, and p7zip-full's 7z.so, unpacked from Debian's arm64
# .debs.
#
#   scripts/arm64/make-root.sh ROOT
#
# Why a root of its own: libbacktrace needs /usr/lib/p7zip/7z.so of its own architecture, and
# p7zip-full is not co-installable for two architectures, so multiarch leaves only the amd64 one
# on the machine; and the cross compiler's /usr/aarch64-linux-gnu holds a different libc build
# from libc6:arm64, under which pthread_create hangs. Each package is taken at the version
# installed for arm64 (the one the tests were linked against), else at apt's candidate.
set -euo pipefail

root=${1:?usage: $0 ROOT}
packages=(libc6 libgcc-s1 libstdc++6 android-liblog android-libbase android-libbacktrace p7zip-full)

stamp="$root/.tovrix-root"
sudo=$([ "$(id -u)" = 0 ] || echo sudo)
candidate() {
    apt-cache policy "$1" 2>/dev/null | sed -n 's/^ *Candidate: //p'
}
case $(candidate p7zip-full:arm64) in
    '' | '(none)') $sudo apt-get update -qq ;;
esac
want=()
for p in "${packages[@]}"; do
    v=$(dpkg-query -W -f='${Version}' "$p:arm64" 2>/dev/null || true)
    [ -n "$v" ] || v=$(candidate "$p:arm64")
    if [ -z "$v" ] || [ "$v" = "(none)" ]; then
        echo "make-root: no arm64 version of $p is known to apt (dpkg --add-architecture arm64;" \
             "apt-get update)" >&2
        exit 1
    fi
    want+=("$p:arm64=$v")
done
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "${want[*]}" ]; then
    exit 0
fi

debs=$(mktemp -d)
trap 'rm -rf "$debs"' EXIT
# apt drops privileges to _apt for the download; let it write there.
chmod 0777 "$debs"
(cd "$debs" && apt-get download -qq "${want[@]}")

rm -rf "$root"
mkdir -p "$root"
for deb in "$debs"/*.deb; do
    dpkg-deb -x "$deb" "$root"
done
# An empty cache of our own, so the loader never reads the host's /etc/ld.so.cache (qemu falls
# back to host paths for files the root lacks) and searches its default directories instead.
mkdir -p "$root/etc"
: > "$root/etc/ld.so.cache"

for f in lib/ld-linux-aarch64.so.1 usr/lib/p7zip/7z.so \
         usr/lib/aarch64-linux-gnu/android/libbacktrace.so.0; do
    if [ ! -e "$root/$f" ]; then
        echo "make-root: $f is missing from the unpacked packages" >&2
        exit 1
    fi
done
echo "${want[*]}" > "$stamp"
echo "make-root: $root ready (${want[*]})"

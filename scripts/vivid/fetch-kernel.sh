#!/usr/bin/env bash
# Unpacks Debian's own amd64 kernel and its modules (not installed) for the vivid test VM.
#
#   scripts/vivid/fetch-kernel.sh DIR
#
# DIR receives the unpacked package (DIR/boot/vmlinuz-*, DIR/lib/modules/*). The kernel is the
# one linux-image-amd64 depends on at apt's candidate version; a later run with the same version
# does nothing.
set -euo pipefail

dir=${1:?usage: $0 DIR}
sudo=$([ "$(id -u)" = 0 ] || echo sudo)

kernel_package() {
    apt-cache depends linux-image-amd64 2>/dev/null |
        sed -n 's/^ *Depends: \(linux-image-[^ ]*\)$/\1/p' | head -1
}
package=$(kernel_package)
if [ -z "$package" ]; then
    $sudo apt-get update -qq
    package=$(kernel_package)
fi
if [ -z "$package" ]; then
    echo "fetch-kernel: apt knows no linux-image-amd64 (apt-get update?)" >&2
    exit 1
fi
version=$(apt-cache policy "$package" | sed -n 's/^ *Candidate: //p')
stamp="$dir/.tovrix-kernel"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$package=$version" ]; then
    exit 0
fi

debs=$(mktemp -d)
trap 'rm -rf "$debs"' EXIT
chmod 0777 "$debs"  # apt downloads as the _apt user
(cd "$debs" && apt-get download -qq "$package=$version")
rm -rf "$dir"
mkdir -p "$dir"
dpkg-deb -x "$debs"/*.deb "$dir"
echo "$package=$version" > "$stamp"
echo "fetch-kernel: $package $version in $dir"

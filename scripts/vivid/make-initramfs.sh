#!/usr/bin/env bash
# Builds the initramfs of the vivid test VM: static busybox, scripts/vivid/init as /init, vivid and
# the modules it needs with their parameters, and the given test programs with every shared library
# they load, each at its own absolute path (so the build tree's run paths still hold).
#
#   scripts/vivid/make-initramfs.sh OUT.cpio.gz KERNEL_DIR TEST_PROGRAM...
#
# KERNEL_DIR is an unpacked linux-image package (scripts/vivid/fetch-kernel.sh).
set -euo pipefail

out=${1:?usage: $0 OUT KERNEL_DIR TEST_PROGRAM...}
kernel=${2:?usage: $0 OUT KERNEL_DIR TEST_PROGRAM...}
shift 2
here=$(cd "$(dirname "$0")" && pwd)

# vivid's first instance only, with video capture as its only node (node_types bit 0), so that
# /dev/video0 is the capture node whatever order /dev lists the nodes in; requests supported
# (1: the application chooses; 2 would make them mandatory). /dev/media0 comes with it.
vivid_params=${VIVID_PARAMS:-"n_devs=1 node_types=0x1 supports_requests=1"}

modules=$(echo "$kernel"/lib/modules/*)
[ -d "$modules/kernel" ] || { echo "make-initramfs: no modules in $kernel" >&2; exit 1; }

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir -p "$stage"/{bin,dev,proc,sys,tmp,modules,tests}

if ! file -bL /bin/busybox | grep -q 'static'; then
    echo "make-initramfs: /bin/busybox is not static (install busybox-static)" >&2
    exit 1
fi
cp /bin/busybox "$stage/bin/busybox"
for applet in $("$stage/bin/busybox" --list); do
    [ "$applet" = busybox ] || ln -s busybox "$stage/bin/$applet"
done
cp "$here/init" "$stage/init"
chmod 0755 "$stage/init"

# Modules in dependency order (each after what it depends on), from the modules' own depends.
declare -A done_modules=()
order=()
add_module() {
    local name=$1 file dep
    [ -z "${done_modules[$name]:-}" ] || return 0
    done_modules[$name]=1
    file=$(find "$modules/kernel" \( -name "$name.ko" -o -name "${name//-/_}.ko" \) | head -1)
    [ -n "$file" ] || { echo "make-initramfs: module $name not found" >&2; exit 1; }
    for dep in $(/sbin/modinfo -F depends "$file" | tr ',' ' '); do
        add_module "$dep"
    done
    cp "$file" "$stage/modules/$name.ko"
    order+=("$name")
}
add_module vivid
for name in "${order[@]}"; do
    if [ "$name" = vivid ]; then echo "vivid $vivid_params"; else echo "$name"; fi
done > "$stage/modules/order"

# A file at its own path in the image; symbolic links are followed (the image holds the file
# under the name the program asked for). Debug information is dropped: it only makes the image big.
copy_file() {
    local src=$1 dst="$stage$1"
    [ -e "$dst" ] && return 0
    mkdir -p "$(dirname "$dst")"
    cp -L "$src" "$dst"
    case $(file -bL "$src") in
        ELF*) strip --strip-debug "$dst" 2>/dev/null || true ;;
    esac
}

for program in "$@"; do
    program=$(readlink -f "$program")
    copy_file "$program"
    echo "$program" >> "$stage/tests/list"
    if ldd "$program" | grep -q 'not found'; then
        ldd "$program" >&2
        echo "make-initramfs: $program needs a library this machine lacks" >&2
        exit 1
    fi
    # "name => /path (addr)" and the loader's "/path (addr)".
    ldd "$program" | awk '$2 == "=>" && $3 ~ /^\// { print $3 } $1 ~ /^\// { print $1 }' |
        while read -r lib; do copy_file "$lib"; done
done

mkdir -p "$(dirname "$out")"
(cd "$stage" && find . | LC_ALL=C sort | cpio -o -H newc --quiet -R 0:0) | gzip -1 > "$out.tmp"
mv "$out.tmp" "$out"
echo "make-initramfs: $out ($(du -h "$out" | cut -f1): ${order[*]}; $# test programs)"

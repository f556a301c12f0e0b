#!/usr/bin/env bash
# The tree's Android.bp files: bpfmt finds nothing to change in any of them, and Debian's
# mini-soong turns them into a Makefile whose build (warnings count as errors, as -Werror would)
# produces a libtovrix_cmt.so that exports exactly the symbols of the CMake build's.
#
#   tests/soong/check.sh SOURCE_DIR WORK_DIR CMAKE_LIBRARY
#
# SOONG_SKIP, when set, is the reason this build has nothing to compare with: printed, then skip.
set -euo pipefail
src=$1 work=$2 cmake_lib=$3
if [ -n "${SOONG_SKIP:-}" ]; then
    echo "skipped: $SOONG_SKIP"
    exit 77
fi

status=0
mapfile -t blueprints < <(cd "$src" && find . -name Android.bp -not -path './build*' \
                                -not -path './.*' | sort)
if [ ${#blueprints[@]} -eq 0 ]; then
    echo "no Android.bp under $src"
    exit 1
fi
for bp in "${blueprints[@]}"; do
    if [ -n "$(bpfmt -d "$src/$bp")" ]; then
        echo "bpfmt would change $bp:"
        bpfmt -d "$src/$bp"
        status=1
    fi
done
echo "bpfmt: ${#blueprints[@]} files checked"

# mini-soong reads every Android.bp below its working directory and builds into it: give it a
# tree of links to the sources (directories as links are not searched).
rm -rf "$work"
mkdir -p "$work"
for bp in "${blueprints[@]}"; do
    mkdir -p "$work/$(dirname "$bp")"
done
for bp in "${blueprints[@]}"; do
    dir=$(dirname "$bp")
    for entry in "$src/$dir"/*; do
        name=$(basename "$entry")
        case $name in build | build-*) continue ;; esac
        [ -e "$work/$dir/$name" ] || ln -s "$entry" "$work/$dir/$name"
    done
done
cd "$work"
# Written here, never through a link into the sources.
rm -f soong.mk soong.log
mini-soong -o soong.mk
if ! make -f soong.mk -j2 libtovrix_cmt_soversion=1.0.0 build >soong.log 2>&1; then
    cat soong.log
    echo "the build of mini-soong's Makefile failed"
    exit 1
fi
if grep -E 'warning:' soong.log; then
    echo "the build of mini-soong's Makefile has warnings"
    status=1
fi

exported() { nm -D --defined-only "$1" | awk '{ print $3 }' | sort -u; }
if ! difference=$(diff <(exported "$cmake_lib") <(exported libtovrix_cmt.so)); then
    echo "exported symbols differ between the CMake build ('<') and the Android.bp build ('>'):"
    grep -E '^[<>]' <<<"$difference" | c++filt
    status=1
else
    echo "mini-soong's libtovrix_cmt.so exports the CMake build's $(exported libtovrix_cmt.so | wc -l) symbols"
fi
exit $status

#!/usr/bin/env bash
# The exported ABI of libtovrix_cmt.so against the checked-in description beside this script:
#   libtovrix_cmt.symbols  every exported symbol, mangled and demangled, one a line
#   libtovrix_cmt.abi      libabigail's description of the exported functions, variables and types
#
#   abi/check.sh symbols LIB   the exported symbols must be exactly the listed ones
#   abi/check.sh types LIB     abidiff must find no change of an exported function, variable or type
#   abi/check.sh update LIB    rewrites both files from LIB (commit them with the change)
#
# Environment: NM (default nm); ABI_SKIP, when set, is the reason this build's ABI legitimately
# differs from the baseline's (sanitizers, another architecture): `types` prints it and skips.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
mode=${1:?symbols, types or update}
lib=${2:?path to libtovrix_cmt.so}
symbols=$here/libtovrix_cmt.symbols
abi=$here/libtovrix_cmt.abi
skip=77

exported() {
    "${NM:-nm}" -D --defined-only "$lib" | awk '{ print $3 }' | sort -u |
        while read -r name; do printf '%s %s\n' "$name" "$(c++filt "$name")"; done
}

# The log frame (korvlog), the standard library's instantiations and anything outside the
# module's namespace but the three plain names are never part of the interface.
strays() {
    local allowed='^_Z31get_korvalite_enabled_tracebitsv |^(korv_dumpstate|korvalite_enabled_tracebits) '
    allowed+='| ((non-virtual thunk to|typeinfo for|typeinfo name for|vtable for) )?NSCam::NSKorvalite::'
    grep -v -E "$allowed" || true
}
strays_of() {
    { strays <<<"$1"; grep -E ' [^(]*NSKorvalite::korvlog::' <<<"$1" || true; } | sort -u
}

describe() {
    abidw --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --drop-undefined-syms \
          --type-id-style hash --headers-dir "$here/../include/korvalite" --drop-private-types "$lib"
}

# The exported symbols, or a failure naming those that are no part of the interface.
interface() {
    local current bad
    current=$(exported)
    bad=$(strays_of "$current")
    if [ -n "$bad" ]; then
        printf 'exported but not part of the interface:\n%s\n' "$bad" >&2
        return 1
    fi
    printf '%s\n' "$current"
}

case $mode in
symbols)
    current=$(interface) || exit 1
    if ! difference=$(diff <(cat "$symbols") <(cat <<<"$current")); then
        echo "exported symbols differ from abi/libtovrix_cmt.symbols ('<' removed, '>' added):"
        grep -E '^[<>]' <<<"$difference"
        echo "if the change is meant, run 'make abi-baseline' and commit abi/ with it"
        exit 1
    fi
    echo "$(wc -l <<<"$current") exported symbols, as listed"
    ;;
types)
    if [ -n "${ABI_SKIP:-}" ]; then
        echo "skipped: $ABI_SKIP"
        exit $skip
    fi
    current=$(mktemp)
    trap 'rm -f "$current"' EXIT
    describe >"$current"
    status=0
    abidiff --no-added-syms "$abi" "$current" || status=$?
    if [ $status -ne 0 ]; then
        echo "the exported ABI differs from abi/libtovrix_cmt.abi (abidiff status $status)"
        echo "if the change is meant, run 'make abi-baseline' and commit abi/ with it"
        exit 1
    fi
    echo "no ABI change against abi/libtovrix_cmt.abi"
    ;;
update)
    current=$(interface) || exit 1
    cat <<<"$current" >"$symbols"
    describe >"$abi"
    echo "wrote $symbols ($(wc -l <"$symbols") symbols) and $abi"
    ;;
*)
    echo "unknown mode $mode" >&2
    exit 2
    ;;
esac

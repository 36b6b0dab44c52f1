#!/usr/bin/env bash
# Compares the exported interface of the release build, functions with the types that they reach,
# with the dump that is checked in for this processor; or writes that dump anew.
# Usage: scripts/abi.sh check|update
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prepare.sh

packages_abi=(abigail-tools)
checked_in=abi/$(uname -m)-linux-gnu/libvelmar_sastox.abi

# Prints the interface. The dump leaves out all that changes without it: source lines, what the
# library is linked with, and where the tree lies.
dump_interface() {
    abidw --headers-dir include --drop-private-types --exported-interfaces-only \
        --no-show-locs --no-comp-dir-path --no-corpus-path --no-elf-needed \
        build/lib/libvelmar_sastox.so | sed "s|path='.*/lib/|path='lib/|"
}

build_library() {
    install_packages "${packages_build[@]}" "${packages_abi[@]}"
    cmake --preset release -G Ninja >/dev/null
    cmake --build --preset release --target velmar_sastox
}

update() {
    build_library
    mkdir -p "${checked_in%/*}"
    dump_interface >"$checked_in"
    echo "$checked_in is written."
}

check() {
    if [ ! -f "$checked_in" ]; then
        echo "There is no dump for this processor ($(uname -m)): nothing to compare."
        return 0
    fi
    build_library
    built=$(mktemp)
    trap 'rm -f "$built"' EXIT
    dump_interface >"$built"
    if ! abidiff "$checked_in" "$built"; then
        echo "The exported interface has changed; when that was meant, run scripts/abi.sh update" \
            "and commit the result." >&2
        return 1
    fi
    echo "The exported interface is the one of $checked_in."
}

case ${1:-} in
    check | update) "$1" ;;
    *)
        echo "Usage: scripts/abi.sh check|update" >&2
        exit 2
        ;;
esac

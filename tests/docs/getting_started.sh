#!/usr/bin/env bash
# Follows docs/getting-started.md outside the tree: saves the files that it names, and runs its
# commands as they stand, with another port. The installation itself is left out ("console").
# Usage: getting_started.sh PAGE BUILD_TREE   against a build tree, with packages made up for it
#        getting_started.sh PAGE PREFIX       against what is installed there
set -euo pipefail
page=$(realpath "$1")
prefix=$(realpath "$2")
extract=$(dirname "$(realpath "$0")")/extract_code.awk
scratch=$(mktemp -d)

finish() {
    cat "$scratch/page/output.txt" || true
    # shellcheck disable=SC2046 # a list of process ids
    kill $(jobs -p) 2>/dev/null || true
    rm -rf "$scratch"
}
trap finish EXIT

# What a build tree lacks of an installation.
make_packages() {
    local include
    include=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$prefix/CMakeCache.txt")/include
    mkdir "$scratch/packages"
    cat >"$scratch/packages/velmar_sastox.pc" <<PC
Name: velmar_sastox
Description: the build tree
Version: 0
Cflags: -I$include
Libs: -L$prefix/lib -lvelmar_sastox
PC
    cat >"$scratch/packages/velmar_sastoxConfig.cmake" <<CONFIG
add_library(velmar_sastox::velmar_sastox SHARED IMPORTED)
set_target_properties(velmar_sastox::velmar_sastox PROPERTIES
  IMPORTED_LOCATION "$prefix/lib/libvelmar_sastox.so"
  INTERFACE_INCLUDE_DIRECTORIES "$include")
CONFIG
    export PKG_CONFIG_PATH=$scratch/packages velmar_sastox_DIR=$scratch/packages
    export LD_LIBRARY_PATH=$prefix/lib
}

use_prefix() {
    local config libraries
    config=$(find "$prefix" -name velmar_sastox.pc -print -quit)
    libraries=$(dirname "$(find "$prefix" -name 'libvelmar_sastox.so*' -print -quit)")
    export PKG_CONFIG_PATH=${config%/*} CMAKE_PREFIX_PATH=$prefix LD_LIBRARY_PATH=$libraries
}

if [ -f "$prefix/CMakeCache.txt" ]; then
    make_packages
else
    use_prefix
fi
export PATH=$prefix/bin:$PATH

# A port that the system gave away just now, in place of the page's.
coproc dmond --udp 127.0.0.1:0
daemon=$COPROC_PID
read -r -t 30 ready <&"${COPROC[0]}"
port=${ready##*:}
kill "$daemon"
wait "$daemon"
sed "s/\\b7400\\b/$port/g" "$page" >"$scratch/page.md"

mkdir "$scratch/page"
cd "$scratch/page"
awk -v dir=. -v stem=commands -v languages="c cmake sh" -f "$extract" ../page.md
# Names on the machine that no other run of this test has.
sed -i "s/\\bgs-/gs$$-/g" commands_*.sh
cat commands_*.sh >commands.sh

. ./commands.sh >output.txt 2>&1

for answer in "hello, daemon" "hello from a client" "hello from next door"; do
    grep -qF "$answer" output.txt || { echo "There is no '$answer'." >&2; exit 1; }
done
if grep "warning:" output.txt; then
    exit 1
fi

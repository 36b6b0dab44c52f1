#!/usr/bin/env bash
# Follows docs/getting-started.md outside the tree: saves the files that it names, and runs its
# commands as they stand, with another port. The installation itself is left out ("console").
# Usage: getting_started.sh PAGE BUILD_TREE   against what a build tree installs
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

if [ -f "$prefix/CMakeCache.txt" ]; then
    cmake --install "$prefix" --prefix "$scratch/installed" >/dev/null
    prefix=$scratch/installed
fi
config=$(find "$prefix" -name velmar_sastox.pc -print -quit)
libraries=$(dirname "$(find "$prefix" -name 'libvelmar_sastox.so*' -print -quit)")
export PKG_CONFIG_PATH=${config%/*} CMAKE_PREFIX_PATH=$prefix LD_LIBRARY_PATH=$libraries
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

#!/usr/bin/env bash
# Installs what is missing, builds, and runs all tests.
# Usage: scripts/test.sh [PRESET]   (release, debug, asan or tsan; release when none is given)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prepare.sh

preset=${1:-release}
install_packages "${packages_build[@]}"
# Said aloud, for the demonstration may have configured the same directory without them.
build "$preset" -DDM_BUILD_TESTS=ON -DDM_BUILD_BENCH=ON ${DM_CMAKE_OPTIONS:-}

# The thread sanitizer cannot place its shadow on kernels that randomise addresses widely.
run=()
if [ "$preset" = tsan ] && setarch "$(uname -m)" -R true 2>/dev/null; then
    run=(setarch "$(uname -m)" -R)
fi
"${run[@]}" ctest --preset "$preset" --no-tests=error -j "$(nproc)"

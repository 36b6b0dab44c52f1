#!/usr/bin/env bash
# Installs what is missing, builds, and runs daemons, clients and a load program against each other
# while they are harmed: requests are lost, late and doubled, peers lie and go, a daemon is killed,
# the clock stepped, descriptors and threads run out. A table tells what became of every request,
# and what is held at the end. It ends with 1 when something does not add up.
# Usage: scripts/soak.sh [MINUTES [SEED]]   (2 minutes, and any seed, which it prints)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prepare.sh

minutes=${1:-2}
install_packages "${packages_build[@]}" "${packages_soak[@]}"
cmake --preset release -G Ninja -DDM_BUILD_TESTS=ON >/dev/null
cmake --build --preset release --target dmond dmcat soak_load | tail -n 1
timeout --kill-after 60 $((minutes * 60 + 300)) \
    python3 -B soak/soak.py --build build --minutes "$minutes" --seed "${2:-$RANDOM}"

#!/usr/bin/env bash
# Installs what is missing, builds, starts the sample daemon on a free loopback port, asks it
# something through the command-line client, and stops it.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prepare.sh

install_packages "${packages_build[@]}"
build release -DDM_BUILD_TESTS=OFF -DDM_BUILD_BENCH=OFF | tail -n 1

# Port 0 lets the system choose; the daemon says which one it is when it is ready.
coproc DMOND { exec build/bin/dmond --udp 127.0.0.1:0; }
daemon=$DMOND_PID
trap 'kill "$daemon" 2>/dev/null || true' EXIT
read -r -t 30 ready <&"${DMOND[0]}"
url=${ready##* }
echo "$ready"

show() {
    echo
    echo "\$ dmcat $*"
    build/bin/dmcat "$@"
}
show "$url" info
show "$url" health
show "$url" ping --data hello --count 5 --interval 200

kill -TERM "$daemon"
wait "$daemon"
trap - EXIT
echo
echo "dmond stopped."

#!/usr/bin/env bash
# Installs what is missing, builds, starts the sample daemon on its transports, asks it something
# through the command-line client over each of them, and stops it.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prepare.sh

install_packages "${packages_build[@]}"
build release -DDM_BUILD_TESTS=OFF -DDM_BUILD_BENCH=OFF | tail -n 1

# Port 0 lets the system choose; the daemon says which one it is when it is ready.
# The sockets of the other two lie in a directory of their own.
DM_HAL_DIR=$(mktemp -d)
export DM_HAL_DIR
coproc DMOND { exec build/bin/dmond --udp 127.0.0.1:0 --hdc 0 --ipc 1; }
daemon=$DMOND_PID
trap 'kill "$daemon" 2>/dev/null || true; rm -rf "$DM_HAL_DIR"' EXIT
for transport in udp hdc ipc; do
    read -r -t 30 ready <&"${DMOND[0]}"
    echo "$ready"
    [ $transport != udp ] || url=${ready##* }
done

show() {
    echo
    echo "\$ dmcat $*"
    build/bin/dmcat "$@"
}
show "$url" info
show "$url" health
show "$url" ping --data hello --count 5 --interval 200
show hdc://0 tasks
show hdc://0 ping --data hello --count 3 --interval 200
show ipc://1 health
show ipc://1 ping --data hello --count 3 --interval 200

kill -TERM "$daemon"
wait "$daemon"
echo
echo "dmond stopped."

#!/usr/bin/env bash
# Tries what users get, outside the tree: the packages of scripts/package.sh, unpacked, and an
# installation into a directory of its own.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prepare.sh

install_packages "${packages_build[@]}" "${packages_package_test[@]}"
tree=$PWD
here=$(mktemp -d)
daemon=
trap '[ -z "$daemon" ] || kill "$daemon" 2>/dev/null || true; rm -rf "$here"' EXIT
root=$here/root
prefix=$here/prefix

fail() {
    echo "$*" >&2
    exit 1
}

unpack() {
    local package
    for package in build-package/*.deb; do
        dpkg-deb -x "$package" "$root"
    done
    libdir=$(dirname "$(find "$root/usr/lib" -name libvelmar_sastox.so)")
}

install_to_prefix() {
    build release -DDM_BUILD_TESTS=OFF -DDM_BUILD_BENCH=OFF | tail -n 1
    cmake --install build --prefix "$prefix" >/dev/null
}

# No file tells where it was built; programs of the packages rely on the system's own places, others
# find their libraries without any help.
check_paths() {
    local version
    ! grep -rF "$tree" "$root" "$prefix" || fail "a file tells the path of the build"
    ! readelf -d "$root"/usr/bin/* "$libdir"/*.so | grep -E 'RPATH|RUNPATH' ||
        fail "a program or a library in a package names a directory"
    version=$(env -i "$prefix/bin/dmcat" --version)
    echo "$version, installed"
}

# Starts a program that prints its port; asks it something and ends it.
ask() {
    local port answer
    coproc DAEMON { exec "$1"; }
    daemon=$DAEMON_PID
    read -r -t 30 port <&"${DAEMON[0]}"
    answer=$("$root/usr/bin/dmcat" "udp://127.0.0.1:$port" --data "hello")
    [ "$answer" = hello ] || fail "the answer is '$answer'"
    kill -TERM "$daemon"
    wait "$daemon"
    daemon=
    echo "${1#"$here"/} has answered"
}

# Both kinds of users of an installation: pkg-config's in C, CMake's in C++.
# Usage: try_daemons NAME PKG_CONFIG_DIRECTORY CMAKE_PREFIX
try_daemons() {
    local flags
    mkdir "$here/$1"
    flags=$(PKG_CONFIG_PATH=$2 pkg-config --cflags --libs velmar_sastox)
    # shellcheck disable=SC2086 # a list of words
    cc -std=c11 -D_POSIX_C_SOURCE=200809L -Wall -Wextra -Wpedantic -Werror \
        "$here/daemon.c" -o "$here/$1/daemon_c" $flags
    ask "$here/$1/daemon_c"

    cmake -S "$here" -B "$here/$1/build" -G Ninja -DCMAKE_PREFIX_PATH="$3" \
        -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >/dev/null
    cmake --build "$here/$1/build" | tail -n 1
    ask "$here/$1/build/daemon"
}

# Every option that the help tells is completed, and no other.
check_completion() {
    local program=$1 completion offered known
    completion=$prefix/share/bash-completion/completions/$program
    known=$("$prefix/bin/$program" --help | grep -oE '^ +(-[a-z],)?--[a-z-]+' | grep -oE -- '--.*')
    offered=$(
        set +eu
        . /usr/share/bash-completion/bash_completion
        # shellcheck source=/dev/null
        . "$completion"
        COMP_WORDS=("$program" --) COMP_CWORD=1 COMP_LINE="$program --"
        COMP_POINT=${#COMP_LINE}
        "_$program"
        printf '%s\n' "${COMPREPLY[@]}"
    )
    diff <(sort <<<"$known") <(sort <<<"$offered")
}

check_unit() {
    local unit=$prefix/lib/systemd/system/dmond.service rated
    # The manual page lies where man does not look.
    systemd-analyze verify --man=no "$unit"
    rated=$(sed -nE 's/^#.* exposure at ([0-9])\.([0-9]) .*/\1\2/p' "$unit")
    systemd-analyze security --offline=true --threshold="$rated" "$unit" | tail -n 1
}

unpack
install_to_prefix
check_paths
check_completion dmcat
check_completion dmond
check_unit
tests/docs/getting_started.sh docs/getting-started.md "$prefix" | tail -n 1

cp tests/package/* "$here"
cd "$here"
# Neither place is one where the linker of the C daemons and the loader look.
export LD_LIBRARY_PATH=$libdir
PKG_CONFIG_SYSROOT_DIR=$root try_daemons with_packages "$libdir/pkgconfig" "$root/usr"
export LD_LIBRARY_PATH=$prefix/lib
try_daemons with_prefix "$prefix/lib/pkgconfig" "$prefix"

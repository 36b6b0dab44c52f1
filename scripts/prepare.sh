# Sourced by the scripts that build: installs what is missing, and builds a preset.
# Needs Debian 12's package names; on another system it says what is wanted.

packages_build=(g++ cmake ninja-build pkg-config libgtest-dev libbenchmark-dev libglib2.0-dev
    nlohmann-json3-dev libcli11-dev python3 tshark)
packages_bench=(libuv1-dev libevent-dev libsystemd-dev libnng-dev libzmq3-dev)
packages_soak=(faketime)
packages_lint=(clang clang-format clang-tidy)
packages_package=(dpkg-dev file lintian)
packages_package_test=(bash-completion systemd)
packages_reference=(doxygen mandoc)

# Prints those of the given packages that are not installed.
missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Abbrev}' "$package" 2>/dev/null | grep -q '^ii' ||
            printf '%s ' "$package"
    done
}

install_packages() {
    local missing as_root=()
    if ! command -v apt-get >/dev/null || ! command -v dpkg-query >/dev/null; then
        echo "This system has no apt. Make sure that it has what these Debian packages hold: $*" >&2
        return 0
    fi
    missing=$(missing_packages "$@")
    [ -n "$missing" ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null || ! sudo -n true 2>/dev/null; then
            echo "These packages are missing and this user may not install them: $missing" >&2
            echo "Ask an administrator for: apt-get install $missing" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "Installing what is missing: $missing"
    "${as_root[@]}" apt-get update -qq
    # shellcheck disable=SC2086 # a list of words
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq \
        --no-install-recommends $missing >/dev/null
}

# build PRESET [CMAKE_OPTION...]
build() {
    local preset=$1
    shift
    cmake --preset "$preset" -G Ninja "$@" >/dev/null
    cmake --build --preset "$preset"
}

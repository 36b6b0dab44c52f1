#!/usr/bin/env bash
# Installs what is missing, builds the reference into build-reference/html, and checks the manual
# pages.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prepare.sh

install_packages "${packages_reference[@]}"

VERSION=$(sed -n 's/^project(.* VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt) doxygen docs/Doxyfile
echo "build-reference/html/index.html"

# The pages refer to each other, and mandoc looks for those among the installed ones alone.
complaints=$(mandoc -Tlint docs/man/* | grep -v "referenced manual not found") || true
[ -z "$complaints" ] || { echo "$complaints" >&2; exit 1; }

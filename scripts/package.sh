#!/usr/bin/env bash
# Installs what is missing, builds the Debian packages into build-package/, and checks them with
# lintian: an error ends it.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prepare.sh

install_packages "${packages_build[@]}" "${packages_package[@]}"
# The distribution's own flags. They count when the directory is configured first.
eval "$(DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --export=sh)"
export CFLAGS="$CFLAGS $CPPFLAGS" CXXFLAGS="$CXXFLAGS $CPPFLAGS"
rm -f build-package/CMakeCache.txt build-package/*.deb
build package
cpack --config build-package/CPackConfig.cmake -B build-package
# There is no list of wishes for a package that a first version could close.
lintian --fail-on error --suppress-tags initial-upload-closes-no-bugs build-package/*.deb

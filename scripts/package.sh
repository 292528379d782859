#!/usr/bin/env bash
# Builds the Debian packages and says where they are.

source "$(dirname "$0")/prepare.sh"
install_packages "${PACKAGES[@]}" dpkg-dev file
configure release -B build/package -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc \
    -DRESERVATION_BUILD_TESTS=OFF >&2
cmake --build build/package >&2
rm -f build/package/*.deb
(cd build/package && cpack -G DEB) >&2
ls "$PWD"/build/package/*.deb

#!/usr/bin/env bash
# Builds and runs every test: scripts/test.sh [--sanitize] [arguments of ctest]
#   --sanitize    with Clang, under AddressSanitizer and UndefinedBehaviorSanitizer; otherwise with GCC, optimised

source "$(dirname "$0")/prepare.sh"
preset=release
packages=("${PACKAGES[@]}" openssl)
if [ "${1:-}" = --sanitize ]; then
    shift
    preset=sanitize
    packages+=(clang libclang-rt-14-dev)
fi
install_packages "${packages[@]}"
build "$preset"
exec ctest --preset "$preset" --parallel "$(nproc)" "$@"

#!/usr/bin/env bash
# Builds and runs the tests: scripts/test.sh [--sanitize | --thread] [arguments of ctest]
#   --sanitize    with Clang, under AddressSanitizer and UndefinedBehaviorSanitizer
#   --thread      those of the daemon, with Clang under ThreadSanitizer
# Otherwise with GCC, optimised.

source "$(dirname "$0")/prepare.sh"
preset=release
packages=("${PACKAGES[@]}" openssl)
case ${1:-} in
    --sanitize | --thread)
        preset=${1#--}
        packages+=(clang libclang-rt-14-dev)
        shift
        ;;
esac
install_packages "${packages[@]}"
build "$preset"
exec ctest --preset "$preset" --parallel "$(nproc)" "$@"

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
rm -f build/thread/race.*
ctest --preset "$preset" --parallel "$(nproc)" "$@" || status=$?
if compgen -G 'build/thread/race.*' >&2; then
    cat build/thread/race.* >&2
    exit 1
fi
exit "${status:-0}"

#!/usr/bin/env bash
# Runs clang-tidy with the checks of .clang-tidy, and fails on any finding:
#   scripts/check_lint.sh [FILE.cpp]...    (default: every source file of the library and the programs)

source "$(dirname "$0")/prepare.sh"
install_packages "${PACKAGES[@]}" clang clang-tidy
build clang --target reservation_proto
files=("$@")
[ $# -gt 0 ] || mapfile -t files < <(git ls-files '*.cpp' ':!:tests' ':!:benchmarks' ':!:examples')
printf '%s\0' "${files[@]}" | xargs -0 -n 1 -P "$(nproc)" clang-tidy -p build/clang --quiet

#!/usr/bin/env bash
# Fails, and says where, when a C++ file is not formatted as .clang-format wants it. With --fix: formats them.

source "$(dirname "$0")/prepare.sh"
install_packages clang-format
mode=(--dry-run --Werror)
[ "${1:-}" = --fix ] && mode=(-i)
git ls-files -z '*.h' '*.cpp' | xargs -0 clang-format "${mode[@]}"

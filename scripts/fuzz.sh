#!/usr/bin/env bash
# Builds the fuzzers and runs each for some seconds on a corpus that is kept below build/corpus:
#   scripts/fuzz.sh [SECONDS]    (default: 60)
# A finding stops it; its input is left in the current folder.

source "$(dirname "$0")/prepare.sh"
export TMPDIR=${TMPDIR:-/dev/shm}    # the fuzzers write files
seconds=${1:-60}
install_packages "${PACKAGES[@]}" clang libclang-rt-14-dev
build sanitize --target reservation_file_fuzzer request_fuzzer trace_fuzzer
for name in reservation_file request trace; do
    mkdir -p "build/corpus/$name"
    build/sanitize/tests/fuzz/${name}_fuzzer -max_total_time="$seconds" -max_len=2048 -print_final_stats=1 \
        -verbosity=0 "build/corpus/$name" "tests/fuzz/corpus/$name"
done

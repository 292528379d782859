#!/usr/bin/env bash
# Builds the benchmarks and runs them; at the end a table of every operation beside its floor, and one of the memory that
# they take. Arguments go to the benchmarks, for example --benchmark_filter='create.*/1000000/'. Files are written below
# $TMPDIR.

source "$(dirname "$0")/prepare.sh"
install_packages g++ cmake ninja-build libbenchmark-dev
cmake --preset release -B build/benchmark -DRESERVATION_BUILD_BENCHMARKS=ON -DRESERVATION_BUILD_TESTS=OFF \
    -DRESERVATION_BUILD_REPLAY=OFF -DRESERVATION_BUILD_DAEMON=OFF >&2
cmake --build build/benchmark >&2
exec build/benchmark/benchmarks/manager_benchmark "$@"

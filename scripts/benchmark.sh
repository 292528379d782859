#!/usr/bin/env bash
# Builds the benchmarks and runs them; at the end a table of every operation beside its floor, and one of the memory that
# they take. Arguments go to the benchmarks, for example --benchmark_filter='create.*/1000000/'. Files are written below
# $TMPDIR.

source "$(dirname "$0")/prepare.sh"
install_packages "${PACKAGES[@]}" libbenchmark-dev
configure release -DRESERVATION_BUILD_BENCHMARKS=ON
cmake --build --preset release --target manager_benchmark >&2
exec build/release/benchmarks/manager_benchmark "$@"

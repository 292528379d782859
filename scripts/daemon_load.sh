#!/usr/bin/env bash
# Starts a daemon of its own and loads it with changes; prints its rates and latencies over time, and at the end the last
# seconds beside the first.
#
#   daemon_load.sh [--dir DIR] [--durability process|machine] [options of daemon_load; see --help]
#
# The daemon's state, its socket and its log are in a new directory below DIR, removed at the end; default: below build/,
# which is on a disk where /tmp may not be. The default durability is process.

source "$(dirname "$0")/prepare.sh"
dir=build
durability=process
arguments=()
while [ $# -gt 0 ]; do
    case $1 in
        --dir | --durability)
            [ $# -ge 2 ] || { echo "$1: is not given a value" >&2; exit 2; }
            [ "$1" = --dir ] && dir=$2 || durability=$2
            shift 2
            ;;
        *)
            arguments+=("$1")
            shift
            ;;
    esac
done

install_packages "${PACKAGES[@]}" libbenchmark-dev
configure release -DRESERVATION_BUILD_BENCHMARKS=ON
cmake --build --preset release --target reservationd daemon_load >&2

mkdir -p "$dir"
dir=$(mktemp -d "$(realpath "$dir")/daemon_load.XXXXXX")
daemon=
trap '[ -z "$daemon" ] || kill "$daemon" 2>/dev/null || true; wait; rm -rf "$dir"' EXIT
build/release/daemon/reservationd --config /dev/null --reservation-mode --persistent-dir "$dir/state" --socket "$dir/socket" \
    --log "$dir/log" --durability "$durability" &
daemon=$!
until [ -S "$dir/socket" ]; do
    kill -0 "$daemon"
    sleep 0.02
done
build/release/benchmarks/daemon_load --address "unix:$dir/socket" "${arguments[@]}"
kill "$daemon"
wait "$daemon"

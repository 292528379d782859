#!/usr/bin/env bash
# Compares the manager with its model on random sequences of operations, in two processes, and tells how many they did:
#   scripts/model_check.sh [MINUTES]    (default: 10; MODEL_SEED: the first of the two seeds, default: the time)
# The first failure ends it, printed as a sequence made as short as it gets. Files are written below $TMPDIR.

source "$(dirname "$0")/prepare.sh"
export TMPDIR=${TMPDIR:-/dev/shm}
minutes=${1:-10}
seed=${MODEL_SEED:-$(date +%s)}
if ! [[ $minutes =~ ^[1-9][0-9]{0,4}$ && $seed =~ ^(0|[1-9][0-9]{0,17})$ ]]; then
    echo "scripts/model_check.sh: MINUTES (1 to 99999) and MODEL_SEED are to be whole numbers, not '$minutes' and '$seed'" >&2
    exit 2
fi
install_packages "${PACKAGES[@]}"
build release --target model_test
TMPDIR=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$TMPDIR"' EXIT
for process in 0 1; do
    MODEL_SEED=$((seed + process)) MODEL_SECONDS=$((minutes * 60)) build/release/tests/model_test --gtest_brief=1 &
done
for process in 0 1; do wait -n || exit 1; done

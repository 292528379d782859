#!/usr/bin/env bash
# Builds the programs, starts a daemon with a directory and a socket of its own, and replays the example trace through it.
# Shows the daemon's reservations in the middle, stops the daemon, and prints the report. Arguments go to the replay; see
# scripts/run.sh --help. Files are written below $TMPDIR.

source "$(dirname "$0")/prepare.sh"
install_packages "${PACKAGES[@]}"
build release --target reservationd reservationctl reservation-replay
bin=build/release
dir=$(mktemp -d)
address=unix:$dir/socket
trap 'kill $(jobs -p) 2>/dev/null || true; wait; rm -rf "$dir"' EXIT

"$bin/daemon/reservationd" --config /dev/null --persistent-dir "$dir/state" --socket "$dir/socket" --log "$dir/log" &
daemon=$!
until [ -S "$dir/socket" ]; do
    kill -0 "$daemon"
    sleep 0.02
done

"$bin/replay/reservation-replay" --connect "$address" examples/nasa-ipsc-1993-week.swf "$@" >"$dir/report" &
replay=$!
"$bin/ctl/reservationctl" --address "$address" watch --from 1 --count 1750 >"$dir/watch" 2>&1 &
middle=$!
status=0
wait -n -p first "$replay" "$middle" || status=$?
if [ "$first" = "$middle" ]; then
    echo "The reservations in the middle of the replay:" >&2
    "$bin/ctl/reservationctl" --address "$address" list >&2
    status=0
    wait "$replay" || status=$?
fi
kill "$daemon"
wait "$daemon"
cat "$dir/report"
exit "$status"

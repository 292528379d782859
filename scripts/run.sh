#!/usr/bin/env bash
# Builds the replay program and replays the example trace. Arguments go to the replay; see scripts/run.sh --help.

source "$(dirname "$0")/prepare.sh"
install_packages "${PACKAGES[@]}"
build release
exec build/release/replay/reservation-replay examples/nasa-ipsc-1993-week.swf "$@"

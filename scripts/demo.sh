#!/usr/bin/env bash
# Builds the example daemon and runs it on the sample stream. Arguments go to the daemon instead:
#   scripts/demo.sh --help
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

install_packages "$ROOT/scripts/build-packages.txt"
build release -DZOR_BUILD_TESTS=OFF zor-tsmon zor-record
clear_pid_file

[ $# -gt 0 ] || set -- "$ROOT/examples/data/three-services.ts"
status=0
"$ROOT/build/release/bin/zor-tsmon" "$@" || status=$?
rm -f "$PID_FILE" # a daemon leaves it behind; this one has ended
exit "$status"

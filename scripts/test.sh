#!/usr/bin/env bash
# Builds everything and runs all tests, ending with ctest's summary.
#   scripts/test.sh [PRESET] [CTEST ARGUMENTS...]
# PRESET is one of those in CMakePresets.json (default: dev).
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1:-} in
-h | --help)
    sed -n '2,4s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
esac
preset=dev
if [ $# -gt 0 ] && [ "${1#-}" = "$1" ]; then
    preset=$1
    shift
fi

install_packages
build "$preset"
clear_pid_file
cd "$ROOT"
ctest --preset "$preset" --parallel "$(nproc)" "$@"

#!/usr/bin/env bash
# Builds everything and runs all tests, ending with ctest's summary.
#   scripts/test.sh [PRESET] [--programs "PROGRAM..."] [CTEST ARGUMENTS...]
# PRESET is one of those in CMakePresets.json (default: dev). With --programs only these test programs
# are built, and only their tests are run.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1:-} in
-h | --help)
    sed -n '2,6s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
esac
preset=dev
if [ $# -gt 0 ] && [ "${1#-}" = "$1" ]; then
    preset=$1
    shift
fi

programs=() only=()
if [ "${1-}" = --programs ]; then
    read -ra programs <<<"${2-}"
    [ ${#programs[@]} -gt 0 ] || die "--programs takes the names of test programs (see --help)"
    only=(--label-regex "^($(IFS='|' && printf '%s' "${programs[*]}"))\$")
    shift 2
fi

install_packages
build "$preset" "${programs[@]}"
clear_pid_file
cd "$ROOT"
# Most tests wait more than they work.
ctest --preset "$preset" --parallel "$((2 * $(nproc)))" "${only[@]}" "$@"

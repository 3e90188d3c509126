#!/usr/bin/env bash
# Lets the storm of tests/stress loose for a long time, and prints rates and resident memory every 10 s.
#   scripts/soak.sh [--preset PRESET] MINUTES [SEED]
# PRESET is release (default), asan, tsan or dev. The seed is printed; without one it is random. The
# script ends with status 0 if everything balances. SIGINT ends the storm early, with its account.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() { sed -n '2,5s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"; }

preset=release
while [ $# -gt 0 ]; do
    case $1 in
    -h | --help)
        usage
        exit 0
        ;;
    --preset)
        preset=${2:-}
        [[ $preset =~ ^(release|asan|tsan|dev)$ ]] ||
            die "--preset takes release, asan, tsan or dev, not '$preset'"
        shift 2
        ;;
    -*) die "unknown option '$1'; see scripts/soak.sh --help" ;;
    *) break ;;
    esac
done
[ $# -ge 1 ] || die "MINUTES is missing; see scripts/soak.sh --help"
[ $# -le 2 ] || die "there are too many arguments; see scripts/soak.sh --help"
minutes=$1
[[ $minutes =~ ^[1-9][0-9]{0,4}$ ]] || die "MINUTES must be a number from 1 to 99999, not '$minutes'"
seed=()
if [ $# -eq 2 ]; then
    [[ $2 =~ ^[0-9]+$ ]] || die "SEED must be a number, not '$2'"
    seed=(--seed "$2")
fi

install_packages
build "$preset" zor-storm
# As the test presets have it.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}
status=0
"$ROOT/build/$preset/bin/zor-storm" --seconds $((minutes * 60)) --report-every 10 "${seed[@]}" ||
    status=$?
[ "$status" -eq 0 ] || die "the storm ended with status $status (see above)"

#!/usr/bin/env bash
# Measures the library beside other frameworks, the same workloads in each, all of them alternating.
#   scripts/bench.sh [--rounds N]   prints the medians of N rounds (5) and their ratio to the best peer,
#                                   and writes docs/benchmarks.md and its charts; a round takes minutes
#   scripts/bench.sh --micro        runs the micro-benchmarks of the components instead
#   scripts/bench.sh --idle [SECONDS]   measures what a daemon costs that does nothing, for 60 s
#   scripts/bench.sh --growth       measures how cost grows with pairs, tasks and timers, writes that section
#                                   of docs/benchmarks.md and its chart, and fails if it grows too fast
#   scripts/bench.sh --mutex        measures how long the process-wide mutex is held, models what that costs
#                                   with up to 16 processors, and writes that section of docs/benchmarks.md
#   scripts/bench.sh --smoke        runs every benchmark for a moment, to see that none is broken
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

rounds=5
seconds=60
mode=compare
while [ $# -gt 0 ]; do
    case $1 in
    --rounds)
        [[ ${2:-} =~ ^[1-9][0-9]*$ ]] || die "--rounds needs a number from 1 on, not '${2:-}'"
        rounds=$2
        shift
        ;;
    --idle)
        mode=idle
        if [[ ${2:-} =~ ^[1-9][0-9]*$ ]]; then
            seconds=$2
            shift
        fi
        ;;
    --micro | --growth | --mutex | --smoke) mode=${1#--} ;;
    -h | --help)
        sed -n '2,11s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
        exit 0
        ;;
    *) die "unknown argument '$1'; see scripts/bench.sh --help" ;;
    esac
    shift
done

install_packages
install_packages "$ROOT/scripts/bench-packages.txt"
build bench
bin=$ROOT/build/bench/bin
export PYTHONDONTWRITEBYTECODE=1

micro() {
    local program
    for program in "$bin"/bench_*; do
        "$program" "$@"
    done
    # Flagged sends once more, with their calls recorded.
    local record
    record=$(mktemp)
    ZOR_RECORD=$record "$bin/bench_Task" --benchmark_filter=SendFlagged "$@"
    rm -f "$record"
}

case $mode in
micro) micro --benchmark_repetitions=5 --benchmark_report_aggregates_only=true ;;
smoke)
    micro --benchmark_min_time=0.001 >/dev/null
    for peer in "$bin"/peer_*; do
        # The shortest workloads, one of many actors among them.
        output=$("$peer" W3 W10_ W11_ 2>/dev/null) || die "$peer ended with status $?"
        ! grep -q '"failed"' <<<"$output" || die "$peer: $output"
        [ "${peer##*/}" = peer_raw ] || grep -q '"value":[0-9]' <<<"$output" ||
            die "$peer printed no figure: $output"
    done
    clear_pid_file
    python3 "$ROOT/bench/idle/measure.py" "$bin" --seconds 1 --runs 5 >/dev/null
    /usr/bin/python3 "$ROOT/bench/growth/measure.py" "$bin" --smoke >/dev/null
    /usr/bin/python3 "$ROOT/bench/mutex/model.py" "$bin" --smoke >/dev/null
    say "every benchmark runs"
    ;;
idle)
    clear_pid_file
    python3 "$ROOT/bench/idle/measure.py" "$bin" --seconds "$seconds"
    ;;
growth)
    /usr/bin/python3 "$ROOT/bench/growth/measure.py" "$bin" \
        --report "$ROOT/docs/benchmarks.md" --chart "$ROOT/docs/benchmarks/growth.svg"
    ;;
mutex) /usr/bin/python3 "$ROOT/bench/mutex/model.py" "$bin" --report "$ROOT/docs/benchmarks.md" ;;
compare)
    # The packages are for the system's Python, whatever other one comes first.
    /usr/bin/python3 -B "$ROOT/bench/compare/run_all.py" "$bin" --rounds "$rounds" \
        --report "$ROOT/docs/benchmarks.md" --charts "$ROOT/docs/benchmarks"
    ;;
esac

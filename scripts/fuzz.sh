#!/usr/bin/env bash
# Feeds every fuzzer of tests/fuzz for a while, two at a time.
#   scripts/fuzz.sh [SECONDS]   seconds for each fuzzer (default: 60)
# What it finds is left as build/fuzz/NAME-crash-*; such an input becomes a unit test.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1:-60} in
-h | --help)
    sed -n '2,4s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
esac
seconds=${1:-60}
[[ $seconds =~ ^[1-9][0-9]*$ ]] || die "SECONDS must be a number from 1 on, not '$seconds'"

install_packages
build fuzz fuzz-indices fuzz-service-id fuzz-record fuzz-stream

# fuzz NAME: new inputs go to a folder of the build; the checked-in seeds stay as they are.
fuzz() {
    local found=$ROOT/build/fuzz/corpus/$1 log=$ROOT/build/fuzz/$1.log
    mkdir -p "$found"
    "$ROOT/build/fuzz/bin/fuzz-$1" "$found" "$ROOT/tests/fuzz/seeds/$1" -max_total_time="$seconds" \
        -max_len=65536 -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$ROOT/build/fuzz/$1-" >"$log" 2>&1 || {
        tail -40 "$log" >&2
        say "fuzzer '$1' found something (above); the input is $ROOT/build/fuzz/$1-*"
        return 1
    }
    say "$1: $(sed -n 's/^stat::number_of_executed_units: *//p' "$log") inputs, nothing found"
}

failed=0
for pair in "indices service-id" "record stream"; do
    jobs=()
    for name in $pair; do
        fuzz "$name" &
        jobs+=($!)
    done
    for job in "${jobs[@]}"; do
        wait "$job" || failed=1
    done
done
[ "$failed" -eq 0 ] || die "mend what was found, and keep each input as a unit test"

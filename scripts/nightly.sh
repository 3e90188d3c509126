#!/usr/bin/env bash
# What every change should stand but takes too long for each one: run it over night, and before a release.
#   scripts/nightly.sh [HOURS]
# In HOURS (default 1) for each: the storm in an ordinary build and under both sanitizers. Then all tests 50
# times under each sanitizer, once for their coverage and once in clang's build, the packages for aarch64, each
# fuzzer for ten minutes, the packages built twice, the unit tests under the simulator, and README's commands and
# the packages in minimal systems of both Debian releases. Goes on after a failure; ends with status 0 if nothing
# failed.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1:-} in
-h | --help)
    sed -n '2,8s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
esac
hours=${1:-1}
[[ $hours =~ ^[1-9][0-9]?$ ]] || die "HOURS must be a number from 1 to 99, not '$hours'"
[ $# -le 1 ] || die "there are too many arguments; see scripts/nightly.sh --help"

failed=()
# part NAME COMMAND...
part() {
    local name=$1
    shift
    say "$name, from $(date '+%F %T') on"
    "$@" || failed+=("$name")
}

cd "$ROOT"
for preset in dev asan tsan; do
    part "storm in $preset" scripts/soak.sh --preset "$preset" $((hours * 60))
done
for preset in asan tsan; do
    part "50 times all tests in $preset" scripts/test.sh "$preset" --repeat until-fail:50
done
part "coverage" scripts/coverage.sh
part "tests of clang's build" scripts/test.sh clang
part "packages for aarch64" scripts/aarch64.sh --packages
part "fuzzers" scripts/fuzz.sh 600
part "packages built twice" scripts/reproducible.sh
part "simulated unit tests" scripts/sim.sh 100
for release in bookworm trixie; do
    part "README's commands on $release" scripts/bare.sh "$release"
    part "packages on $release" scripts/bare.sh "$release" --packages
done

[ ${#failed[@]} -eq 0 ] || die "failed: $(printf '%s; ' "${failed[@]}")"
say "all passed"

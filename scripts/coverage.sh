#!/usr/bin/env bash
# Measures how much of src/ and inc/ the unit and process tests run.
#   scripts/coverage.sh   builds the `coverage` preset, runs the tests, prints a line for each file,
#                         and fails below 99 % of the lines or 90 % of the branches
# The pages of build/coverage/report/index.html show every line. docs/coverage.md says why what is
# left cannot be reached.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

LEAST_LINES=99
LEAST_BRANCHES=90

# What these run is run by quicker tests too: they are after order, speed and rare interleavings.
LONG_TESTS='*TimersSchedulerLoadTest*:*QueueModelTest.*:QueueFreshModelTest.*:*MillionEvents*'
LONG_TESTS+=':*FiftyThousandRandomSteps*:*TaskStressTest*:*TenThousandTimersDestroyed*'

case ${1:-} in
-h | --help)
    sed -n '2,6s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
'') ;;
*) die "unknown argument '$1'; see scripts/coverage.sh --help" ;;
esac

install_packages
build coverage tests/unit/all tests/process/all
# Counters add up from run to run, and those of an object that has changed do not fit.
find "$ROOT/build/coverage" -name '*.gcda' -delete
clear_pid_file
cd "$ROOT/build/coverage"
for part in unit process; do
    GTEST_FILTER="-$LONG_TESTS" ctest --test-dir "tests/$part" --parallel "$((2 * $(nproc)))" \
        --output-on-failure --no-tests=error --progress --quiet --output-log "$part-tests.log" || {
        tail -40 "$part-tests.log" >&2
        die "tests fail in the coverage build (see above and build/coverage/$part-tests.log)"
    }
done

mkdir -p report
status=0
gcovr --root "$ROOT" --object-directory . --filter "$ROOT/src/" --filter "$ROOT/inc/" \
    --exclude-throw-branches --exclude-unreachable-branches -j "$(nproc)" \
    --html-details report/index.html --txt report/lines.txt --json-summary report/summary.json \
    --print-summary --fail-under-line "$LEAST_LINES" --fail-under-branch "$LEAST_BRANCHES" . \
    >report/summary.txt || status=$?
[ -s report/lines.txt ] || die "gcovr made no report (status $status)"
cat report/lines.txt report/summary.txt
say "every line: $ROOT/build/coverage/report/index.html"
[ $((status & ~6)) -eq 0 ] || die "gcovr failed with status $status"
[ $((status & 2)) -eq 0 ] || die "less than $LEAST_LINES % of the lines are run; the list above has" \
    "those that are not: write a test that runs them, or tell in docs/coverage.md why none can"
[ $((status & 4)) -eq 0 ] || die "less than $LEAST_BRANCHES % of the branches are taken; the report" \
    "shows those that are not: write a test that takes them"

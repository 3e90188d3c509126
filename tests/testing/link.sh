#!/usr/bin/env bash
# A program that holds tests and the runtime either does not link or runs its tests, in whichever order
# the libraries stand: it never ends well without having run one. The environment gives CXX, the folders
# SOURCE_DIR and SCRATCH, and the libraries CORE, PLATFORM, TESTING, GTEST and GTEST_MAIN.
set -euo pipefail

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

rm -rf "$SCRATCH"
mkdir -p "$SCRATCH"
cd "$SCRATCH"
compile() {
    local output=$1
    shift
    "$CXX" -std=c++17 -fPIC -c "$SOURCE_DIR/tests/testing/OneTest.cpp" -o "$output" \
        -I "$SOURCE_DIR/inc" -I "$SOURCE_DIR/platform/inc" -I "$SOURCE_DIR/testing/inc" "$@"
}
compile plain.o
compile header.o -DWITH_HEADER
compile nomain.o -DWITHOUT_MAIN

library_path=$(dirname "$CORE"):$(dirname "$PLATFORM")
link() { "$CXX" -o program -Wl,-rpath,"$library_path" "$@" "$GTEST" "$PLATFORM" -pthread -ldl 2>link.log; }

# runs_or_does_not_link WHAT ARGUMENTS...: counts what came of it.
linked=0 refused=0
runs_or_does_not_link() {
    local what=$1
    shift
    if ! link "$@"; then
        refused=$((refused + 1))
        return
    fi
    linked=$((linked + 1))
    # Nothing may touch the pid file of another daemon: where the runtime's main() has been taken
    # against our will this test says so all the same.
    ./program >program.log 2>&1 || fail "$what: status $?: $(cat program.log)"
    grep -q '\[  PASSED  \] 1 test\.' program.log || fail "$what: status 0 without a test: $*"
}

# permutations PREFIX... -- REST...: all orders.
orders=()
permute() {
    local prefix=$1
    shift
    [ $# -gt 0 ] || orders+=("$prefix")
    local i
    for ((i = 1; i <= $#; ++i)); do
        permute "$prefix ${!i}" "${@:1:i-1}" "${@:i+1}"
    done
}

# With a header, the reference in it brings our main() in; without one, the option of the CMake target.
option=-Wl,--undefined=zor_testing_is_not_linked_link_with_zor_testing
permute "" OBJECT "$CORE" "$TESTING" "$GTEST_MAIN"
for order in "${orders[@]}"; do
    # shellcheck disable=SC2086  # several arguments
    runs_or_does_not_link "with a header" ${order/OBJECT/header.o}
    # shellcheck disable=SC2086
    runs_or_does_not_link "with the option" $option ${order/OBJECT/plain.o}
done
[ "$linked" -ge 8 ] || fail "of 48 orders only $linked link"
[ "$refused" -ge 8 ] || fail "of 48 orders only $refused are refused: gtest_main before ours must be"

orders=()
permute "" OBJECT "$CORE" "$TESTING"
linked=0 refused=0
for order in "${orders[@]}"; do
    # shellcheck disable=SC2086
    runs_or_does_not_link "without gtest_main" $option ${order/OBJECT/plain.o}
done
[ "$linked" -eq 6 ] || fail "without gtest_main only $linked of 6 orders link"

! link header.o "$CORE" || fail "a program with our headers links without the library"
grep -q zor_testing_is_not_linked_link_with_zor_testing link.log || fail "says: $(cat link.log)"
! link nomain.o "$CORE" "$GTEST_MAIN" || fail "a program without Main() links without the library"
grep -q 'Main()' link.log || fail "says: $(cat link.log)"
link nomain.o "$CORE" $option "$TESTING" || fail "no Main() of ours: $(cat link.log)"
./program >/dev/null 2>&1 || fail "a program without Main() ended with $?"

# Tests in a shared library of their own, which the runtime's main() goes before: said at the end.
"$CXX" -shared -o libtests.so header.o "$TESTING" "$GTEST" 2>link.log || fail "$(cat link.log)"
"$CXX" -o program -Wl,-rpath,"$library_path:$SCRATCH" "$CORE" ./libtests.so "$PLATFORM" 2>link.log ||
    fail "$(cat link.log)"
exec 9>/tmp/.zor-daemon.pid.test-lock
flock 9
rm -f /tmp/.zor-daemon.pid
status=0
ZOR_DLOG=none ./program >program.log 2>&1 9>&- || status=$?
rm -f /tmp/.zor-daemon.pid
flock -u 9
[ "$status" -eq 1 ] || fail "another main(): status $status: $(cat program.log)"
grep -q 'zor::testing: its main() has not run, and so no test' program.log ||
    fail "another main() says: $(cat program.log)"
rm -rf "$SCRATCH"

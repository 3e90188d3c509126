# Shared by the tests of this folder; sourced, not run. The environment gives SOURCE_DIR, BUILD_DIR and
# SCRATCH (a folder that the tests may fill).
# shellcheck shell=bash
set -euo pipefail

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

PID_FILE=/tmp/.zor-daemon.pid

# run_daemon LIBRARY_DIR PROGRAM EXPECTED: runs the daemon, which must end well and print a line that is
# EXPECTED. Other builds' tests are kept from the pid file meanwhile.
run_daemon() {
    local output
    exec 9>"$PID_FILE.test-lock"
    flock 9
    rm -f "$PID_FILE"
    output=$(LD_LIBRARY_PATH=$1 timeout 120 "$2" 2>"$2.log" 9>&-) ||
        fail "$2 ended with status $?; its log: $(cat "$2.log")"
    rm -f "$PID_FILE"
    flock -u 9
    grep -qxF -- "$3" <<<"$output" || fail "$2 printed '$output', not '$3'"
}

# build_with_find_package PREFIX DIRECTORY: builds the consumer daemon against what is below PREFIX.
build_with_find_package() {
    rm -rf "$2"
    cmake -S "$SOURCE_DIR/tests/install/consumer" -B "$2" -G Ninja -DCMAKE_PREFIX_PATH="$1" \
        -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror"
    cmake --build "$2"
    grep -q "zor-core_DIR:PATH=$1/" "$2/CMakeCache.txt" || fail "another installation was found"
}

# test_with_find_package PREFIX DIRECTORY: builds the consumer's tests, which must pass, with the tests
# among the libraries of either order; and a program that would run none, which must not link.
test_with_find_package() {
    local program log libraries
    libraries=$(library_dir "$1")
    rm -rf "$2"
    cmake -S "$SOURCE_DIR/tests/install/consumer-tests" -B "$2" -G Ninja -DCMAKE_PREFIX_PATH="$1" \
        -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror"
    cmake --build "$2" --target counter-test counter-test-last
    for program in counter-test counter-test-last; do
        log=$(LD_LIBRARY_PATH=$libraries timeout 120 "$2/$program" 2>&1) ||
            fail "$program ended with status $?: $log"
        grep -qF '[  PASSED  ] 3 tests.' <<<"$log" || fail "$program printed: $log"
        # But for the installed headers, which may lie in it.
        ! readelf -p .rodata "$2/$program" | grep -F "$BUILD_DIR" | grep -vF "$1/" ||
            fail "$program names the build's folder"
    done
    ! log=$(cmake --build "$2" --target gtest-main-test 2>&1) ||
        fail "a program with gtest_main beside the runtime links"
    grep -q link_zor_testing_instead_of_gtest_main <<<"$log" || fail "the linker says: $log"
}

# simulate_with_find_package PREFIX DIRECTORY: in a build by test_with_find_package, the installed simulator
# finds a race, and nothing where there is none.
simulate_with_find_package() {
    local log
    grep -q "ZOR_SIM_TOOL:FILEPATH=$1/" "$2/CMakeCache.txt" || fail "another zor-sim was found"
    cmake --build "$2" --target race no-race
    ctest --test-dir "$2" -R '^no-race-sim$' --no-tests=error --output-on-failure >&2 ||
        fail "zor-sim finds something in a program without a race"
    ! log=$(ctest --test-dir "$2" -R '^race\.Sim$' --no-tests=error --output-on-failure) ||
        fail "zor-sim does not find the race: $log"
    grep -q 'failed: ended with status 1' <<<"$log" || fail "of a program with a race zor-sim says: $log"
}

# flags_of PREFIX OPTION...: what pkg-config tells of the library below PREFIX.
flags_of() {
    PKG_CONFIG_PATH=$(dirname "$(find "$1" -name zor-core.pc)") pkg-config "${@:2}" zor-core ||
        fail "pkg-config does not find zor-core"
}

# build_with_pkg_config PREFIX PROGRAM
build_with_pkg_config() {
    local flags
    flags=$(flags_of "$1" --cflags --libs)
    # shellcheck disable=SC2086  # several flags
    g++ -std=c++17 -Wall -Wextra -Wpedantic -Werror "$SOURCE_DIR/tests/install/consumer/Daemon.cpp" \
        -o "$2" $flags
}

# library_dir PREFIX: where the library is below PREFIX.
library_dir() { dirname "$(find "$1" -name libzor-core.so.1)"; }

# page_block NOTE: the block of docs/using.md below the comment NOTE, without the indentation of its fence.
page_block() {
    awk -v note="<!-- $1 -->" '
        inside && $1 == "```" { inside = 0; next }
        inside { print substr($0, indent + 1) }
        /^ *```/ && before == note { inside = 1; found += 1; indent = index($0, "`") - 1 }
        { before = $0; sub(/^ */, "", before) }
        END { exit found != 1 || inside }
    ' "$SOURCE_DIR/docs/using.md" || fail "docs/using.md has not one block '$1'"
}

# page_sources BUILD_FILE DIRECTORY: writes the page's project with that CMakeLists.txt.
page_sources() {
    local file
    mkdir -p "$2"
    page_block "$1" >"$2/CMakeLists.txt"
    for file in Greeter.h Main.cpp GreeterTest.cpp; do
        page_block "greeter/$file" >"$2/$file"
    done
}

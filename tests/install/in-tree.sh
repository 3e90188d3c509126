#!/usr/bin/env bash
# A project with the sources in its tree gets the targets of an installation, and C++17 with them.
. "$(dirname "${BASH_SOURCE[0]}")/support.sh"

rm -rf "$SCRATCH"
unset LD_LIBRARY_PATH

# The page's project, as it is configured without a word about its build.
page_sources in-tree/CMakeLists.txt "$SCRATCH/greeter"
ln -s "$SOURCE_DIR" "$SCRATCH/greeter/zor-core"
build=$SCRATCH/greeter/build
cmake -S "$SCRATCH/greeter" -B "$build" -G Ninja
grep -qx 'CMAKE_BUILD_TYPE:STRING=' "$build/CMakeCache.txt" || fail "the project's build type was changed"
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure
expected=$(page_block "output of greeter")
run_daemon "" "$build/greeter" "$expected"
for program in zor-record zor-sim zor-top zor-tsmon infobox; do
    [ -z "$(find "$build" -name "$program")" ] || fail "$program was built, which nobody has asked for"
done

# Program and library travel together.
cmake --install "$build" --prefix "$SCRATCH/prefix" >/dev/null
mv "$SCRATCH/prefix" "$SCRATCH/moved"
rm -rf "$build"
run_daemon "" "$SCRATCH/moved/bin/greeter" "$expected"
found=$(cd "$SCRATCH/moved" && find . ! -type d ! -name '*.log' | sort | xargs)
expected=$(printf '%s\n' ./bin/greeter ./lib/lib{zor-core,zor-platform-host}.so{,.1,.1.0.0} | sort | xargs)
[ "$found" = "$expected" ] || fail "the project's installation has: $found"
rm -rf "$SCRATCH"

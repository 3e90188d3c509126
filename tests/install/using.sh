#!/usr/bin/env bash
# What docs/using.md shows is built and run as it stands there.
. "$(dirname "${BASH_SOURCE[0]}")/support.sh"

rm -rf "$SCRATCH"
mkdir -p "$SCRATCH/sources/build"
ln -s "$BUILD_DIR" "$SCRATCH/sources/build/release" # cmake only reads there; see packages.sh
export HOME=$SCRATCH
unset LD_LIBRARY_PATH PKG_CONFIG_PATH CMAKE_PREFIX_PATH

# Every block with a note is known here, in the test of the packages, or in that of the source tree.
known="$(printf '%s\n' greeter/{Greeter.h,Main.cpp,GreeterTest.cpp} {find_package,in-tree}/CMakeLists.txt \
    "output of greeter" "output of the loader" \
    "run: "{packages,prefix,build,pkg-config,"install with rpath","link with rpath",ldconfig,environment} | sort)"
shown=$(sed -n 's/^ *<!-- \(.*\) -->$/\1/p' "$SOURCE_DIR/docs/using.md" | sort)
[ "$shown" = "$known" ] || fail "the page's blocks are: $shown"
blocks=$(grep -c '^ *```' "$SOURCE_DIR/docs/using.md")
[ "$blocks" -eq $((2 * $(wc -l <<<"$shown"))) ] || fail "a block of the page has no note"

# on_page NOTE [DIRECTORY]: runs the commands of a block.
on_page() {
    local commands
    commands=$(page_block "$1")
    (cd "${2-$SCRATCH}" && bash -euo pipefail -c "$commands") >"$SCRATCH/page.log" 2>&1 ||
        fail "'$1' of the page: $(cat "$SCRATCH/page.log")"
}
expected=$(page_block "output of greeter")
# The loader's message, behind the program's name.
loader=": $(page_block "output of the loader")"
not_found() {
    local output status=0
    output=$("$1" 2>&1) || status=$?
    [ "$status" -eq 127 ] && [ "$output" = "$1$loader" ] || fail "$1 ended with status $status: $output"
}

on_page "run: prefix" "$SCRATCH/sources"
page_sources find_package/CMakeLists.txt "$SCRATCH/greeter"
on_page "run: build"
grep -q "100% tests passed, 0 tests failed out of 1" "$SCRATCH/page.log" ||
    fail "the test of the greeter: $(cat "$SCRATCH/page.log")"
run_daemon "" "$SCRATCH/greeter/build/greeter" "$expected"

# An installed program has lost the path, unless it was asked for.
printf 'install(TARGETS greeter)\n' >>"$SCRATCH/greeter/CMakeLists.txt"
cmake --build "$SCRATCH/greeter/build" >/dev/null
cmake --install "$SCRATCH/greeter/build" --prefix "$SCRATCH/without" >/dev/null
not_found "$SCRATCH/without/bin/greeter"
run_daemon "$SCRATCH/zor/lib" "$SCRATCH/without/bin/greeter" "$expected"
on_page "run: install with rpath"
cmake --install "$SCRATCH/greeter/build" --prefix "$SCRATCH/with" >/dev/null
run_daemon "" "$SCRATCH/with/bin/greeter" "$expected"

on_page "run: pkg-config"
not_found "$SCRATCH/greeter/greeter"
printf '#!/bin/bash\ncd "$HOME"\n%s\n' "$(page_block "run: environment")" >"$SCRATCH/environment"
chmod +x "$SCRATCH/environment"
run_daemon "" "$SCRATCH/environment" "$expected"
cp "$SCRATCH/greeter/greeter" "$SCRATCH/without-path"
export PKG_CONFIG_PATH=$SCRATCH/zor/lib/pkgconfig # as the block before has left it
on_page "run: link with rpath"
run_daemon "" "$SCRATCH/greeter/greeter" "$expected"

# The installed programs find both libraries by themselves.
for library in libzor-core.so.1 libzor-platform-host.so.1; do
    ldd "$SCRATCH/zor/bin/zor-tsmon" | grep -qF "$library => $SCRATCH/zor/" ||
        fail "zor-tsmon finds: $(ldd "$SCRATCH/zor/bin/zor-tsmon")"
done

# As root of a namespace, where /usr/local and the loader's cache are this test's own.
if ! unshare --user --map-root-user --mount true 2>/dev/null; then
    printf 'SKIPPED: the part with ldconfig, because nobody may make a namespace here\n'
elif [[ $(command -v cmake) == /usr/local/* ]]; then
    printf 'SKIPPED: the part with ldconfig, because cmake itself is in /usr/local\n'
elif [[ $SOURCE_DIR/ == /usr/local/* || $BUILD_DIR/ == /usr/local/* ]]; then
    printf 'SKIPPED: the part with ldconfig, because the sources or their build are in /usr/local\n'
else
    unshare --user --map-root-user --mount bash "$SOURCE_DIR/tests/install/ldconfig.sh" \
        "$SCRATCH/without-path" "$expected"
fi
rm -rf "$SCRATCH"

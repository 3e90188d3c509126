#!/usr/bin/env bash
# The installed tree serves a daemon built with find_package and one built with pkg-config.
. "$(dirname "${BASH_SOURCE[0]}")/support.sh"

rm -rf "$SCRATCH"
prefix=$SCRATCH/prefix
cmake --install "$BUILD_DIR" --prefix "$prefix" >/dev/null

# Moved after the installation: nothing in it may know where it was made for.
mv "$prefix" "$SCRATCH/moved"
prefix=$SCRATCH/moved
folders="(?<![\w.}/-])(\Q$BUILD_DIR\E|\Q$SOURCE_DIR\E)(?![\w-])" # not as parts of other paths
! grep -rIlP "$folders" "$prefix" || fail "these files name the build's folders"

build_with_find_package "$prefix" "$SCRATCH/cmake"
run_daemon "$(library_dir "$prefix")" "$SCRATCH/cmake/consumer" "counted 7"
run_daemon "$(library_dir "$prefix")" "$SCRATCH/cmake/kit-consumer" "counted 7"
test_with_find_package "$prefix" "$SCRATCH/tests"
simulate_with_find_package "$prefix" "$SCRATCH/tests"
build_with_pkg_config "$prefix" "$SCRATCH/with-pkg-config"
run_daemon "$(library_dir "$prefix")" "$SCRATCH/with-pkg-config" "counted 7"

# The pretty-printers lie beside the library, wherever that is; gdb wants to be told to trust them.
library=$(realpath "$(library_dir "$prefix")/libzor-core.so.1")
printers=$(gdb -nx -batch -iex "set debuginfod enabled off" -iex "add-auto-load-safe-path $prefix" \
    -ex "info pretty-printer .* zor-core" "$library" 2>&1)
grep -qx '    TCTask' <<<"$printers" || fail "gdb has no pretty-printers: $printers"

# Every program has a manual page, and so does the library.
for program in "$prefix"/bin/*; do
    [ -e "$prefix/share/man/man1/$(basename "$program").1.gz" ] || fail "$program has no manual page"
done
zcat "$prefix"/share/man/man1/zor-tsmon.1.gz | grep -q 'monitors the services of a transport stream' ||
    fail "the manual page of zor-tsmon has no summary"
zcat "$prefix/share/man/man7/zor-core.7.gz" | cmp - "$SOURCE_DIR/docs/man/zor-core.7" ||
    fail "the manual page of the library is another one"

# The headers say so where they cannot be used.
flags=$(flags_of "$prefix" --cflags)
# shellcheck disable=SC2086  # several flags
! refusal=$(g++ -std=c++17 -U__LP64__ -fsyntax-only $flags -include Task.h -x c++ /dev/null 2>&1) ||
    fail "Task.h compiles where long and pointers have not 64 bits"
grep -q "zor-core is for Linux where long and pointers have 64 bits (LP64)" <<<"$refusal" ||
    fail "Task.h says where it cannot be used: $refusal"

# The platform of the development machine is a component of its own.
cmake --install "$BUILD_DIR" --prefix "$SCRATCH/platform" --component platform >/dev/null
found=$(cd "$SCRATCH/platform/lib" && find . -name '*.so*' | sort)
[ "$found" = "$(printf '%s\n' ./libzor-platform-host.so.1{,.0.0} ./zor-core/libqv-win-util.so)" ] ||
    fail "component 'platform' has: $found"
rm -rf "$SCRATCH"

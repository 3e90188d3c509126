#!/usr/bin/env bash
# A build for a device links the platform libraries that it is told, and nothing of this machine's.
. "$(dirname "${BASH_SOURCE[0]}")/support.sh"

rm -rf "$SCRATCH"
cmake -S "$SOURCE_DIR/tests/install/tiny-platform" -B "$SCRATCH/tiny" -G Ninja \
    -DZOR_PLATFORM_INC="$SOURCE_DIR/platform/inc"
cmake --build "$SCRATCH/tiny"

! cmake -S "$SOURCE_DIR" -B "$SCRATCH/none" -G Ninja -DZOR_PLATFORM=device 2>"$SCRATCH/none.log" ||
    fail "a device build without platform libraries was configured"
grep -q ZOR_PLATFORM_LIBRARIES "$SCRATCH/none.log" || fail "the message: $(cat "$SCRATCH/none.log")"

cmake -S "$SOURCE_DIR" -B "$SCRATCH/device" -G Ninja -DZOR_PLATFORM=device \
    -DZOR_PLATFORM_LIBRARIES="$SCRATCH/tiny/libtiny-platform.so" -DCMAKE_BUILD_TYPE=Debug \
    -DZOR_WARNINGS_AS_ERRORS=ON -DZOR_BUILD_TESTS=OFF
for option in ZOR_BUILD_TOOLS ZOR_BUILD_EXAMPLES; do
    grep -q "^$option:BOOL=OFF" "$SCRATCH/device/CMakeCache.txt" ||
        fail "a device build has $option on, which needs more than the platform's libraries"
done
cmake --build "$SCRATCH/device"
cmake --install "$SCRATCH/device" --prefix "$SCRATCH/prefix" >/dev/null

[ -z "$(find "$SCRATCH/device" "$SCRATCH/prefix" -name '*platform-host*')" ] ||
    fail "the development machine's platform was built or installed"
build_with_find_package "$SCRATCH/prefix" "$SCRATCH/cmake"
libraries=$(library_dir "$SCRATCH/prefix"):$SCRATCH/tiny
run_daemon "$libraries" "$SCRATCH/cmake/consumer" "tiny 4 CONSUMER: handling 7"
run_daemon "$libraries" "$SCRATCH/cmake/consumer" "counted 7"
rm -rf "$SCRATCH"

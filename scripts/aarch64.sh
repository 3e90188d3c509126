#!/usr/bin/env bash
# Builds the library for aarch64 and runs its unit, process and fault tests there, emulated, ending with
# ctest's summary; then tries what docs/devices.md says.
#   scripts/aarch64.sh [--release] [--programs "PROGRAM..."] [CTEST ARGUMENTS...]
#   scripts/aarch64.sh --packages
# With --programs only these test programs are built and run; --release takes the optimised build. With
# --packages it makes the Debian packages instead, installs them into a folder, runs and purges them.
#
# The cross compiler, the arm64 packages beside this machine's own and the emulator (qemu-user) are
# installed as scripts/aarch64-packages.txt lists them. A test program may start others of its kind: the
# kernel is told of the emulator in a user namespace, which is gone at the end, so that nothing of this
# machine changes. That needs Linux 6.7, or an emulator that is registered already (Debian:
# qemu-user-binfmt). What cannot run emulated stands in tests/aarch64/excluded.txt, with the reason.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

EXCLUDED=$ROOT/tests/aarch64/excluded.txt

# An ELF file of 64 bits, executable or position-independent, for the machine 183; and what of it counts.
MAGIC='\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00'
MASK='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
# The emulator gets the program open, with the name that it was started by.
# shellcheck disable=SC2016 # it is expanded there
REGISTER='
set -eu
mount -t binfmt_misc none /proc/sys/fs/binfmt_misc
printf %s ":qemu-aarch64:M::$1:$2:$3:POCF" >/proc/sys/fs/binfmt_misc/register
shift 3
exec "$@"'

# emulated COMMAND...: runs it where the kernel runs aarch64 programs.
emulated() {
    if [ "$(uname -m)" = aarch64 ] || [ -e /proc/sys/fs/binfmt_misc/qemu-aarch64 ]; then
        "$@"
        return
    fi
    unshare --user --map-root-user --mount bash -c "$REGISTER" register \
        "$MAGIC" "$MASK" "$(command -v qemu-aarch64)" "$@"
}

# The tests that are left out, as gtest's filter. One that is there no more is to be taken off the list.
excluded_filter() {
    local program test filter=
    while read -r program test _; do
        if [ -x "$BUILD/bin/$program" ]; then
            emulated "$BUILD/bin/$program" --gtest_list_tests --gtest_filter="$test" </dev/null | grep -q . ||
                die "$EXCLUDED names $test of $program, which is no test"
        fi
        filter+=:$test
    done < <(grep -v '^#' "$EXCLUDED" | grep .)
    printf '%s' "-${filter#:}"
}

preset=aarch64
case ${1-} in
-h | --help)
    sed -n '2,14s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
--release)
    preset=aarch64-release
    shift
    ;;
esac
packages=false
if [ "${1-}" = --packages ]; then
    [ $# -eq 1 ] || die "--packages takes nothing beside it (see --help)"
    preset=aarch64-release
    packages=true
fi
programs=()
if [ "${1-}" = --programs ]; then
    read -ra programs <<<"${2-}"
    [ ${#programs[@]} -gt 0 ] || die "--programs takes the names of test programs (see --help)"
    shift 2
fi

if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    # shellcheck disable=SC2034 # as_root says it
    ROOT_HINT="let an administrator run: dpkg --add-architecture arm64"
    as_root dpkg --add-architecture arm64
fi
lists=("$ROOT/scripts/build-packages.txt" "$ROOT/scripts/aarch64-packages.txt")
! $packages || lists+=("$ROOT/scripts/packages.txt") # what the manual pages are made with
install_packages "${lists[@]}"

BUILD=$ROOT/build/$preset
parts=(unit faults process)
if $packages; then
    build "$preset" -DZOR_BUILD_TESTS=OFF
elif [ ${#programs[@]} -gt 0 ]; then
    build "$preset" "${programs[@]}"
    set -- --label-regex "^($(IFS='|' && printf '%s' "${programs[*]}"))\$" "$@"
else
    build "$preset" tests/{unit,faults,process}/all
fi

emulated true || die "the kernel cannot be told of the emulator for these programs alone: it is older than" \
    "6.7, or does not let this user. Debian's qemu-user-binfmt tells it for the whole machine"
clear_pid_file
if $packages; then
    emulated "$ROOT/tests/aarch64/packages.sh" "$BUILD"
    exit
fi
filter=$(excluded_filter)
for part in "${parts[@]}"; do
    emulated env GTEST_FILTER="$filter" ctest --test-dir "$BUILD/tests/$part" --parallel "$(nproc)" \
        --output-on-failure "$@"
done

[ ${#programs[@]} -eq 0 ] || exit 0
say "headers where long has 32 bits"
for header in "$ROOT"/inc/*.h; do
    [ "${header##*/}" != ZorFunctionIndices.h ] || continue # it reads text, and has nothing of any size
    said=$(aarch64-linux-gnu-g++ -mabi=ilp32 -std=c++17 -fsyntax-only -I "$ROOT/inc" -I "$ROOT/platform/inc" \
        -x c++ "$header" 2>&1) && die "$header is compiled there, and must not be"
    grep -m 1 error: <<<"$said" | grep -q '(LP64)' ||
        die "$header does not say first that it is for LP64 only: $(grep -m 1 error: <<<"$said")"
done
say "a core and a running daemon, looked into from here"
"$ROOT/tests/aarch64/inspect.sh" "$BUILD"

#!/usr/bin/env bash
# What docs/devices.md says of looking into a device, on an emulated one: a core of a stripped daemon is
# inspected on this machine, and a daemon that runs there is debugged from here.
#   inspect.sh BUILD_FOLDER
set -euo pipefail
build=$(realpath "$1")
scratch=$(mktemp -d)
daemon=

cleanup() {
    trap - EXIT
    [ -z "$daemon" ] || kill -KILL "$daemon" 2>/dev/null || true
    rm -rf "$scratch" /tmp/.zor-daemon.pid
}
trap cleanup EXIT

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# expect TEXT PATTERN: one of its lines matches.
expect() { grep -qE -- "$2" <<<"$1" || fail "no line matches '$2':"$'\n'"$1"; }

# The emulator's cores leave out what is not written to, the program's headers among it. So this daemon
# lies where it was linked for; a kernel's cores have the headers of all files.
program=$build/bin/zor-test-fixed-daemon

# start EMULATOR_OPTIONS...: the daemon, in the background, with its standard input open.
start() {
    rm -f /tmp/.zor-daemon.pid input
    mkfifo input
    ZOR_DLOG=none qemu-aarch64 "$@" "$program" <input >output 2>errors &
    daemon=$!
    exec 8>input
}

await() {
    local tries
    for ((tries = 600; tries > 0; --tries)); do
        ! "$@" || return 0
        kill -0 "$daemon" 2>/dev/null || fail "the daemon has ended: $(cat errors)"
        sleep 0.1
    done
    fail "waited in vain for: $*"
}

mkdir "$scratch/core" "$scratch/system" "$scratch/remote"

# A copy of the device's files, as they are there: stripped; the symbols beside it, by build id.
cp -L "$program" "$scratch/system/daemon"
qemu-aarch64 -E LD_TRACE_LOADED_OBJECTS=1 "$program" | grep -oE '/[^ ]+' | while read -r library; do
    mkdir -p "$scratch/system$(dirname "$library")"
    cp -L "$library" "$scratch/system$library"
done
for file in "$scratch/system/daemon" "$scratch/system$build/lib/"*; do
    id=$(aarch64-linux-gnu-readelf -n "$file" | sed -n 's/.*Build ID: //p')
    debug=$scratch/system/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug
    mkdir -p "$(dirname "$debug")"
    aarch64-linux-gnu-objcopy --only-keep-debug "$file" "$debug"
    aarch64-linux-gnu-strip "$file"
done

cd "$scratch/core"
ulimit -c unlimited
start
await grep -q hanging output
kill -ABRT "$daemon"
{ wait "$daemon"; } 2>/dev/null || true # the shell says how it ended
daemon=
core=$(echo qemu_*.core)
[ -s "$core" ] || fail "the emulator has left no core: $(ls)"
report=$("$build/bin/zor-inspect" --gdb gdb-multiarch --sysroot "$scratch/system" "$core" "$scratch/system/daemon") ||
    fail "zor-inspect ended with $?"
expect "$report" '^  paused +[0-9]+ +0 +paused$'
expect "$report" '^  hanging +[0-9]+ +0 +in handler of event type 1 \(EVENT_USER\)'
expect "$report" '^  [^ ]+ \(thread [0-9]+\) -> hanging \(thread [0-9]+\)'

# Without the device's files it says what is missing instead of showing something else.
! report=$("$build/bin/zor-inspect" --gdb gdb-multiarch --sysroot "$scratch/remote" "$core" \
    "$scratch/system/daemon" 2>&1) || fail "a core without its libraries was inspected:"$'\n'"$report"
expect "$report" 'debug information'

cd "$scratch/remote"
start -g "$scratch/remote/stub"
await test -S stub
said=$(timeout 300 gdb-multiarch -nx -batch -ex 'set pagination off' -ex "set sysroot $scratch/system" \
    -ex "set debug-file-directory $scratch/system/usr/lib/debug" -ex "file $scratch/system/daemon" \
    -ex 'target remote stub' -ex 'break HangingTask::t_OnUser' -ex continue -ex backtrace \
    -ex 'kill' </dev/null 2>&1) || fail "gdb ended with $?: $said"
daemon=
expect "$said" '#0 .*HangingTask::t_OnUser .*SupervisedDaemon.cpp:'
expect "$said" 'TCTask::Deliver .*Task.cpp:'
printf 'a core and a running daemon of aarch64 were looked into from %s\n' "$(uname -m)"

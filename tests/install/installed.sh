#!/usr/bin/env bash
# What the packages have put below /usr, used as an engineer uses it: a daemon runs, is recorded and looked into,
# and goes on. The environment gives SOURCE_DIR, and SCRATCH, an empty folder outside of /tmp.
. "$(dirname "${BASH_SOURCE[0]}")/support.sh"

unset LD_LIBRARY_PATH PYTHONPATH
stream=$SCRATCH/stream.ts # the sources may lie in /tmp
cp "$SOURCE_DIR/examples/data/three-services.ts" "$stream"

for tool in zor-apart zor-inspect zor-record zor-sim zor-top; do
    [ "$(command -v $tool)" = "/usr/bin/$tool" ] || fail "$tool is $(command -v $tool)"
    [[ $($tool --version) == "$tool 1."* ]] || fail "$tool says: $($tool --version)"
done

daemon=
cleanup() {
    [ -z "$daemon" ] || kill -KILL "$daemon" 2>/dev/null || true
    rm -f "$PID_FILE"
}
trap cleanup EXIT
exec 9>"$PID_FILE.test-lock" # other builds' tests are kept from the pid file meanwhile
flock 9
rm -f "$PID_FILE"
# Its input does not end: this shell has it open.
mkfifo "$SCRATCH/input"
exec 8<>"$SCRATCH/input"
ZOR_RECORD=$SCRATCH/calls.zor ZOR_DLOG=file:$SCRATCH/log zor-tsmon "$SCRATCH/input" >"$SCRATCH/table" 8>&- 9>&- &
daemon=$!
cat "$stream" >&8
for ((i = 0; i < 1200; ++i)); do
    grep -qs 'SDT version 0 .* 3 services' "$SCRATCH/log" && break
    kill -0 "$daemon" 2>/dev/null || fail "zor-tsmon has ended: $(cat "$SCRATCH/log" "$SCRATCH/table")"
    sleep 0.1
done
[ "$(cat "$PID_FILE")" = "$daemon" ] || fail "the pid file has '$(cat "$PID_FILE")', not $daemon"

# Names, types and lines that only the debug information has, which is not in the library itself.
report=$(zor-inspect --timeout 600 --stacks --full-stacks "$daemon") || fail "zor-inspect ended with status $?"
for expected in "process $daemon (/usr/bin/zor-tsmon)" 'TsReader .* 0 ' 'TCTask::.* at .*Task.*\.cpp:[0-9]' \
    'WatchdogNotifier.cpp:[0-9]'; do
    grep -q "$expected" <<<"$report" || fail "zor-inspect does not print '$expected' but: $report"
done
! readelf -S /usr/lib/libzor-core.so.1 | grep -q debug_info || fail "the library is not stripped"

# gdb has the pretty-printers of the library by itself.
printers=$(gdb -nx -batch -iex "set debuginfod enabled off" -ex "info pretty-printer .* zor-core" \
    /usr/lib/libzor-core.so.1 2>&1)
grep -qx '    TCTask' <<<"$printers" || fail "gdb has no pretty-printers: $printers"

kill -TERM "$daemon"
status=0
wait "$daemon" || status=$?
daemon=
[ "$status" -eq 0 ] || fail "zor-tsmon ended with status $status: $(cat "$SCRATCH/log")"
grep -q 'North News' "$SCRATCH/table" || fail "zor-tsmon printed: $(cat "$SCRATCH/table")"
rm -f "$PID_FILE"
flock -u 9
calls=$(zor-record print "$SCRATCH/calls.zor") || fail "zor-record ended with status $?"
grep -q 'TsReader' <<<"$calls" || fail "zor-record printed: $(head -n 20 <<<"$calls")"

# In a /tmp of its own; where the system refuses that, zor-apart says so.
status=0
zor-apart zor-tsmon "$stream" >"$SCRATCH/table" 2>"$SCRATCH/log" || status=$?
if [ "$status" -eq 125 ]; then
    printf 'SKIPPED: a daemon with a /tmp of its own; %s\n' "$(tail -n 1 "$SCRATCH/log")"
else
    [ "$status" -eq 0 ] && grep -q 'North News' "$SCRATCH/table" ||
        fail "zor-apart ended with status $status: $(cat "$SCRATCH/log" "$SCRATCH/table")"
fi

if command -v man >/dev/null; then
    for page in infobox zor-apart zor-inspect zor-record zor-sim zor-top zor-tsmon zor-core; do
        # The line with the name may be stretched.
        log=$(MANPAGER=cat man "$page" 2>&1) && grep -q "^ *$page \+[^ ]\+ \+[^ ]" <<<"$log" || fail "man $page: $log"
    done
fi

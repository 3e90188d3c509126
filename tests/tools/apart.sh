#!/usr/bin/env bash
# zor-apart gives a command a /tmp of its own, and is not in its way otherwise. The environment gives BIN,
# the build's programs, and LIB, the folder of the library.
# shellcheck disable=SC2016  # what stands in single quotes is expanded inside
set -euo pipefail

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}
# expect_status N COMMAND...: its output is in $output.
expect_status() {
    local status=0
    output=$("${@:2}" 2>&1) || status=$?
    [ "$status" -eq "$1" ] || fail "'${*:2}' ended with status $status, not $1: $output"
}
apart=$BIN/zor-apart

expect_status 0 "$apart" --help
[[ $output == *"Usage: zor-apart [OPTIONS] COMMAND"* ]] || fail "the help is: $output"
expect_status 0 "$apart" --version
[ "$output" = "zor-apart 1.0.0" ] || fail "the version is: $output"
expect_status 125 "$apart"
expect_status 125 "$apart" --nonesuch true
expect_status 125 "$apart" --tmp
expect_status 125 "$apart" --tmp /nonesuch true

if ! unshare --mount true 2>/dev/null && ! unshare --user --map-root-user --mount true 2>/dev/null; then
    expect_status 125 "$apart" true
    [[ $output == *"the kernel refuses them"* ]] || fail "it says where it is refused: $output"
    printf 'SKIPPED: nobody may make a namespace here\n'
    exit 77
fi

# The build tree may lie in /tmp itself: what is run there lies beside it.
scratch=$(mktemp -d /var/tmp/zor-apart.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
chmod 755 "$scratch"
mkdir "$scratch/bin" "$scratch/lib" "$scratch/first"
cp "$BIN/hello" "$BIN/zor-tsmon" "$scratch/bin"
cp -P "$LIB"/libzor-*.so* "$scratch/lib"
export LD_LIBRARY_PATH=$scratch/lib

# The command's own: arguments, status, signals.
expect_status 0 "$apart" printf '%s|' 'a b' '' "c'd" '$HOME'
[ "$output" = "a b||c'd|\$HOME|" ] || fail "the arguments were: $output"
expect_status 7 "$apart" -- bash -c 'exit 7'
expect_status 143 "$apart" bash -c 'kill -TERM $$'
expect_status 127 "$apart" nonesuch-command
expect_status 126 "$apart" "$scratch"
"$apart" bash -c 'echo $$' >"$scratch/pid" &
wait $!
[ "$(cat "$scratch/pid")" = $! ] || fail "the command is not the process that was started"

# A /tmp of its own, the user as before.
mark=$(mktemp /tmp/zor-apart.XXXXXX)
trap 'rm -rf "$scratch" "$mark"' EXIT
expect_status 0 "$apart" bash -c 'ls -A /tmp; stat -c %a /tmp; touch /tmp/zor-apart-own; ls /tmp; id -u; id -g'
[ "$output" = "$(printf '%s\n' 1777 zor-apart-own "$(id -u)" "$(id -g)")" ] || fail "inside is: $output"
[ ! -e /tmp/zor-apart-own ] || fail "what was made inside is outside"
[ -e "$mark" ] || fail "what was outside is gone"

export ZOR_DLOG=none

# A command in the /tmp that would be hidden: said before, by its path.
cp /bin/true "$mark"
chmod 755 "$mark"
expect_status 125 "$apart" "$mark"
[[ $output == *"'$mark' lies in /tmp"* ]] || fail "it says: $output"
cd /tmp
expect_status 125 "$apart" "./${mark##*/}"
[[ $output == *"'$mark' lies in /tmp"* ]] || fail "by a path from here it says: $output"
expect_status 0 "$apart" echo "a word of the shell's own"
cd "$scratch"
expect_status 0 "$apart" --tmp "$scratch/bin" /tmp/hello
[ "$output" = "hello 42" ] || fail "the daemon in the folder that is its /tmp printed: $output"

# Three daemons with a pid file each; the second start in one of their folders steps aside.
for _ in 1 2; do
    expect_status 0 "$apart" "$scratch/bin/hello"
    [ "$output" = "hello 42" ] || fail "a daemon printed: $output"
done
expect_status 0 "$apart" --tmp "$scratch/first" "$scratch/bin/hello"
[ "$output" = "hello 42" ] || fail "the daemon with a folder printed: $output"
[[ $(cat "$scratch/first/.zor-daemon.pid") =~ ^[0-9]+$ ]] || fail "its pid file is not in the folder"
expect_status 0 "$apart" --tmp "$scratch/first" "$scratch/bin/hello"
[[ $output == *" is gone and has left the pid file /tmp/.zor-daemon.pid behind; "* && $output != *"hello 42"* ]] ||
    fail "the second daemon with that folder did not step aside: $output"

# It can be looked into from outside, by the pid in its folder.
rm "$scratch/first/.zor-daemon.pid"
mkfifo "$scratch/input"
"$apart" --tmp "$scratch/first" "$scratch/bin/zor-tsmon" - <"$scratch/input" >/dev/null 2>"$scratch/daemon.log" &
daemon=$!
exec 8>"$scratch/input" # the daemon waits for packets until it is closed
for ((tries = 0; tries < 600; ++tries)); do
    [ ! -s "$scratch/first/.zor-daemon.pid" ] || break
    sleep 0.1
done
[ "$(cat "$scratch/first/.zor-daemon.pid")" = "$daemon" ] || fail "the daemon: $(cat "$scratch/daemon.log")"
for ((tries = 0; tries < 60; ++tries)); do # until its tasks are there
    expect_status 0 "$BIN/zor-inspect" --sysroot / "$daemon"
    [[ $output != *TsReader* ]] || break
done
[[ $output == *TsReader* ]] || fail "from outside the daemon is: $output"
kill "$daemon"
exec 8>&-
wait "$daemon" || fail "the daemon ended with status $?"

# Where the kernel refuses, in a namespace that allows no further ones: a clear word and the status.
if unshare --user --map-root-user true 2>/dev/null; then
    expect_status 125 unshare --user --map-root-user bash -c \
        'echo 0 >/proc/sys/user/max_user_namespaces
        exec setpriv --bounding-set=-all --inh-caps=-all "$@"' bash "$apart" touch "$scratch/started"
    [[ $output == *"the kernel refuses them"*"max_user_namespaces"* ]] || fail "it says: $output"
    [ ! -e "$scratch/started" ] || fail "the command was started all the same"
fi

# Not for root alone.
if [ "$(id -u)" -eq 0 ] && setpriv --reuid=65534 --regid=65534 --clear-groups \
    unshare --user --map-root-user --mount true 2>/dev/null; then
    expect_status 0 setpriv --reuid=65534 --regid=65534 --clear-groups sh -s -- \
        sh -c 'echo $(id -u) $(id -g) $(ls -A /tmp | wc -l)' <"$apart"
    [ "$output" = "65534 65534 0" ] || fail "a user without rights sees: $output"
fi

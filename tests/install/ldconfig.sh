#!/usr/bin/env bash
# The page's commands that renew the loader's cache, in a namespace whose mounts using.sh has made
# private: PROGRAM, which names no path, is found its library by them and prints EXPECTED.
. "$(dirname "${BASH_SOURCE[0]}")/support.sh"

program=$1 expected=$2
mkdir -p "$SCRATCH/own/"{etc,local,cache}
cp -a /etc/. "$SCRATCH/own/etc" 2>/dev/null || true # what may not be read is of no use here
mount --bind "$SCRATCH/own/etc" /etc
mount --bind "$SCRATCH/own/local" /usr/local
mount --bind "$SCRATCH/own/cache" /var/cache/ldconfig
[ ! -e /usr/local/lib ] || fail "/usr/local is not this test's own"

page_block "run: ldconfig" >"$SCRATCH/own/commands"
(
    cd "$SCRATCH/sources"
    # shellcheck disable=SC2317 # the page's commands call it
    sudo() { PATH=$PATH:/usr/sbin:/sbin "$@"; }
    # shellcheck disable=SC1091 # it has just been written
    . "$SCRATCH/own/commands"
) >"$SCRATCH/own/log" 2>&1 || fail "the page's commands: $(cat "$SCRATCH/own/log")"
run_daemon "" "$program" "$expected"

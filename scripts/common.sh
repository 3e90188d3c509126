# Shared by the scripts of this folder; sourced, not run.
# shellcheck shell=bash

set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
SCRIPT=$(basename "$0")

say() { printf '%s: %s\n' "$SCRIPT" "$*" >&2; }
die() {
    say "$*"
    exit 1
}

# missing_packages FILE...: the packages listed there that are not installed. A name without an
# architecture is of this machine's one: the package of another one beside it does not serve.
missing_packages() {
    local package native
    native=$(dpkg --print-architecture)
    sed -e 's/#.*//' "$@" | while read -r package; do
        [ -n "$package" ] || continue
        case $package in
        *:*) set -- "$package" "${package#*:}" ;;
        *) set -- "$package" "$native" ;;
        esac
        dpkg-query -W -f='${db:Status-Status} ${Architecture}\n' "$1" 2>/dev/null |
            grep -qxE "installed ($2|all)" || printf '%s\n' "$package"
    done
}

# as_root COMMAND...: runs it as root, through sudo if this is another user. Stops if that cannot be;
# what is the command's purpose is in ROOT_HINT then.
as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
        return
    fi
    command -v sudo >/dev/null || die "this is not root and there is no sudo; $ROOT_HINT"
    sudo -n true 2>/dev/null || [ -t 0 ] ||
        die "sudo wants a password and there is no terminal to ask on; $ROOT_HINT"
    sudo "$@"
}

# install_packages [FILE...]: installs what is missing of these lists (default: what building and all
# tests need), as root or through sudo.
install_packages() {
    [ $# -gt 0 ] || set -- "$ROOT/scripts/build-packages.txt" "$ROOT/scripts/packages.txt"
    command -v dpkg-query >/dev/null && command -v apt-get >/dev/null ||
        die "this needs a Debian system (dpkg-query and apt-get); on another one install the" \
            "counterparts of $* and build with cmake --preset release -DZOR_BUILD_TESTS=OFF"
    local missing
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0

    say "packages to install: ${missing[*]}"
    ROOT_HINT="let an administrator run: apt-get install ${missing[*]}"
    as_root apt-get update >&2 || die "the package lists cannot be updated (see above)"
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y \
        --no-install-recommends "${missing[@]}" >&2 ||
        die "the packages cannot be installed (see above)"
}

# build PRESET [-DSETTING...] [TARGET...]: configures and builds below build/PRESET.
build() {
    local preset=$1 settings=()
    shift
    while [[ ${1-} == -D* ]]; do
        settings+=("$1")
        shift
    done
    (
        cd "$ROOT"
        cmake --preset "$preset" "${settings[@]}" >&2
        cmake --build --preset "$preset" ${1:+--target "$@"} >&2
    ) || die "the build with preset '$preset' failed (see above)"
}

PID_FILE=/tmp/.zor-daemon.pid

# Removes a pid file that a dead daemon has left behind; stops if the daemon lives.
clear_pid_file() {
    [ -e "$PID_FILE" ] || return 0
    local pid
    pid=$(cat "$PID_FILE" 2>/dev/null) || die "$PID_FILE exists and cannot be read"
    if [[ $pid =~ ^[0-9]+$ ]] && [ -d "/proc/$pid" ]; then
        die "a daemon runs already: process $pid ($(tr '\0' ' ' <"/proc/$pid/cmdline"))" \
            "holds $PID_FILE; stop it first"
    fi
    say "removing $PID_FILE, left behind by process ${pid:-(empty)}, which is gone"
    rm -f "$PID_FILE" || die "$PID_FILE cannot be removed"
}

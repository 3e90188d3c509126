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

# missing_packages FILE: the packages listed there that are not installed.
missing_packages() {
    local package
    sed -e 's/#.*//' "$1" | while read -r package; do
        [ -n "$package" ] || continue
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            printf '%s\n' "$package"
    done
}

# install_packages [FILE]: installs what is missing of that list (default: packages.txt), as root or
# through sudo.
install_packages() {
    local list=${1:-$ROOT/scripts/packages.txt}
    command -v dpkg-query >/dev/null && command -v apt-get >/dev/null ||
        die "this needs a Debian system (dpkg-query and apt-get); on another one install the" \
            "counterparts of $list and build with cmake --preset release"
    local missing as_root=()
    mapfile -t missing < <(missing_packages "$list")
    [ ${#missing[@]} -gt 0 ] || return 0

    say "packages to install: ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null ||
            die "they are needed, but this is not root and there is no sudo;" \
                "let an administrator run: apt-get install ${missing[*]}"
        sudo -n true 2>/dev/null || [ -t 0 ] ||
            die "they are needed, but sudo wants a password and there is no terminal to ask on;" \
                "let an administrator run: apt-get install ${missing[*]}"
        as_root=(sudo)
    fi
    "${as_root[@]}" apt-get update >&2 || die "the package lists cannot be updated (see above)"
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y \
        --no-install-recommends "${missing[@]}" >&2 ||
        die "the packages cannot be installed (see above)"
}

# build PRESET [TARGET...]: configures and builds below build/PRESET.
build() {
    local preset=$1
    shift
    (
        cd "$ROOT"
        cmake --preset "$preset" >&2
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

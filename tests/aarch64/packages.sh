#!/usr/bin/env bash
# Makes the Debian packages of a build for aarch64, installs them into a folder, runs what they have put
# there on the emulated processor, and purges them again. To be run where the kernel runs aarch64 programs
# and dpkg is root, if only of a namespace, as scripts/aarch64.sh --packages does it.
#   packages.sh BUILD_FOLDER
set -euo pipefail
build=$(realpath "$1")
sources=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
scratch=$(mktemp -d -p "${TMPDIR:-/var/tmp}")
trap 'rm -rf "$scratch" /tmp/.zor-daemon.pid' EXIT

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

(umask 022 && cd "$build" && cpack -G DEB -B "$scratch/packages" >"$scratch/log" 2>&1) ||
    fail "there are no packages: $(tail "$scratch/log")"
packages=("$scratch/packages"/*.deb)
[ ${#packages[@]} -eq 5 ] || fail "there are ${#packages[@]} packages, not five"
names=()
for package in "${packages[@]}"; do
    architecture=$(dpkg-deb -f "$package" Architecture)
    [ "$architecture" = arm64 ] || fail "$package is for $architecture"
    names+=("$(dpkg-deb -f "$package" Package)")
done
runtime=$(dpkg-deb -f "$scratch"/packages/libzor-core1_*.deb Depends)
for library in libc6 libstdc++6 libsystemd0 libxxhash0; do
    grep -qF "$library" <<<"$runtime" || fail "libzor-core1 does not depend on $library: $runtime"
done

# What they depend on is this machine's: the folder has nothing but them. Their scripts are run from outside of
# it, where what they call is a command for that processor.
root=$scratch/root
mkdir -p "$root"/{etc,var/cache/ldconfig,var/lib/dpkg/{info,updates}} "$scratch"/{bin,libc}
touch "$root"/var/lib/dpkg/{status,available}
(cd "$scratch/libc" && apt-get -o APT::Sandbox::User=root download libc-bin:arm64 >"$scratch/log" 2>&1) ||
    fail "ldconfig for arm64 cannot be fetched: $(cat "$scratch/log")"
dpkg-deb -x "$scratch"/libc/*.deb "$scratch/libc"
ldconfig=$(find "$scratch/libc" -path '*/sbin/ldconfig' -type f)
printf '#!/bin/sh\nexec "%s" -r "%s" "$@"\n' "$ldconfig" "$root" >"$scratch/bin/ldconfig"
chmod +x "$scratch/bin/ldconfig"
PATH=$scratch/bin:$PATH
on_root() {
    dpkg --root="$root" --force-depends --force-script-chrootless --log=/dev/null "$@" >"$scratch/log" 2>&1
}
on_root --add-architecture arm64
on_root --install "${packages[@]}" || fail "they cannot be installed: $(cat "$scratch/log")"

ldconfig -p | grep -q 'libzor-core.so.1 (libc6,AArch64)' ||
    fail "the loader does not know the library"
programs=0
while read -r file; do
    said=$(aarch64-linux-gnu-readelf -hS "$file" 2>/dev/null) || continue
    grep -q 'Machine: *AArch64' <<<"$said" || fail "$file is for another processor"
    programs=$((programs + 1))
    [[ $file == */usr/lib/debug/* || $file == *.a ]] || ! grep -q debug_info <<<"$said" || fail "$file is not stripped"
done < <(find "$root/usr" -type f)
[ "$programs" -ge 10 ] || fail "the packages have $programs programs and libraries only"

cd "$scratch"
export LD_LIBRARY_PATH=$root/usr/lib ZOR_DLOG=none
rm -f /tmp/.zor-daemon.pid
ZOR_RECORD=$scratch/calls.zor "$root/usr/bin/zor-tsmon" "$sources/examples/data/three-services.ts" >table ||
    fail "zor-tsmon ended with $?"
grep -q 'North News' table || fail "zor-tsmon printed: $(cat table)"
"$root/usr/bin/zor-record" print calls.zor >calls || fail "zor-record ended with $?"
grep -q TsReader calls || fail "zor-record printed: $(head calls)"
! said=$("$root/usr/bin/zor-sim" --remove /tmp/.zor-daemon.pid --seeds 1..30 -- "$build/bin/lost_update" 2>&1) ||
    fail "zor-sim has not found the race: $said"
grep -q 'ended with status 1' <<<"$said" || fail "zor-sim printed: $said"

on_root --purge "${names[@]}" || fail "they cannot be purged: $(cat "$scratch/log")"
left=$(find "$root" -mindepth 1 -not -path "$root/var*" -not -path "$root/etc*")
[ -z "$left" ] || fail "this is left: $left"
! ldconfig -p | grep zor || fail "the loader knows the libraries above"
printf 'the packages for aarch64 were installed, ran and were purged\n'

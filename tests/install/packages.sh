#!/usr/bin/env bash
# The Debian packages satisfy lintian, install and remove cleanly in a scratch root, and serve a daemon.
. "$(dirname "${BASH_SOURCE[0]}")/support.sh"

rm -rf "$SCRATCH"
mkdir -p "$SCRATCH"
# Outside of the build: cpack would follow a link in it that leads back to it without an end.
sources=$(mktemp -d)
trap 'rm -rf "$sources"' EXIT
mkdir "$sources/build"
ln -s "$BUILD_DIR" "$sources/build/release"
# The page's commands, but that apt only says what it would do: it finds what the packages depend on.
page_block "run: packages" >"$SCRATCH/packages.sh"
(
    cd "$sources"
    export HOME=$SCRATCH
    # shellcheck disable=SC2317 # the page's commands call it
    sudo() {
        [ "$1 $2" = "apt install" ] || fail "the page has another command for root: $*"
        apt-get --simulate --no-install-recommends install "${@:3}"
    }
    # shellcheck disable=SC1091 # it has just been written
    . "$SCRATCH/packages.sh"
) >"$SCRATCH/cpack.log" 2>&1 || fail "the page's commands: $(cat "$SCRATCH/cpack.log")"
packages=("$SCRATCH"/zor-packages/*.deb)
names=$(for package in "${packages[@]}"; do dpkg-deb -f "$package" Package; done | sort | xargs)
all="libzor-core-dev libzor-core1 libzor-core1-dbgsym zor-core-tools zor-core-tools-dbgsym"
[ "$names" = "$all" ] || fail "the packages are: $names"

allow_root=()
[ "$(id -u)" -ne 0 ] || allow_root=(--allow-root)
lintian "${allow_root[@]}" --fail-on error,warning "${packages[@]}" ||
    fail "lintian found something (above)"

depends=$(dpkg-deb -f "$SCRATCH"/zor-packages/zor-core-tools_*.deb Depends)
[[ $depends == *"libzor-core1 (>= 1.0.0)"* ]] || fail "zor-core-tools depends on: $depends"

# A root with an empty package database; the packages' own dependencies are on the real machine.
root=$SCRATCH/root
mkdir -p "$root/var/lib/dpkg/"{info,updates,triggers} "$root/etc"
touch "$root/var/lib/dpkg/"{status,available}
dpkg_in_root() {
    dpkg --root="$root" --log="$SCRATCH/dpkg.log" --force-not-root --force-depends \
        --force-script-chrootless "$@" >"$SCRATCH/dpkg.out" 2>&1 ||
        fail "dpkg $*: $(cat "$SCRATCH/dpkg.out")"
}
files() { (cd "$root" && find . ! -type d ! -path './var/*' | sort); }
before=$(files)
dpkg_in_root --install "${packages[@]}"
[ "$(files)" != "$before" ] || fail "nothing has been installed"

build_with_find_package "$root/usr" "$SCRATCH/cmake"
run_daemon "$root/usr/lib" "$SCRATCH/cmake/consumer" "counted 7"
run_daemon "$root/usr/lib" "$SCRATCH/cmake/kit-consumer" "counted 7"
test_with_find_package "$root/usr" "$SCRATCH/tests"
simulate_with_find_package "$root/usr" "$SCRATCH/tests"
LD_LIBRARY_PATH=$root/usr/lib "$root/usr/bin/zor-record" --version | grep -q '1\.0\.0' ||
    fail "the installed zor-record does not tell its version"

# gdb finds its script by the real path of the library, which is that below /usr.
library=$(cd "$root" && find . -name 'libzor-core.so.1.*' ! -path './usr/share/*')
[ "$(wc -l <<<"$library")" -eq 1 ] || fail "the library is: $library"
script=$root/usr/share/gdb/auto-load${library#.}-gdb.py
[ -e "$script" ] || fail "gdb does not find: $(cd "$root" && find . -name '*-gdb.py')"
! gdb -nx -batch -ex "python exec(open('$script').read(), {'__file__': '$script'})" 2>&1 | grep . ||
    fail "the script for gdb (above)"

# As the system's own /usr, where the loader, gdb and the tools look. With the debug information in its place
# zor-inspect sees the stripped library; without, it says what is missing.
in_place=$(mktemp -d /var/tmp/zor-packages.XXXXXX)
trap 'rm -rf "$sources" "$in_place"' EXIT
mkdir "$in_place/with" "$in_place/without"
own=(unshare --mount)
"${own[@]}" true 2>/dev/null || own=(unshare --user --map-root-user --mount)
# as_usr MOUNTS COMMAND...: with the packages in /usr and what else is mounted.
as_usr() {
    # shellcheck disable=SC2016 # it is expanded there
    "${own[@]}" sh -c 'mount -t overlay -o "lowerdir=$0/usr:/usr" zor-packages /usr && '"$1"' && exec "$@"' \
        "$root" "${@:2}"
}
if log=$(as_usr true true 2>&1); then
    SCRATCH=$in_place/with as_usr true bash "$SOURCE_DIR/tests/install/installed.sh"
    ! log=$(SCRATCH=$in_place/without as_usr 'mount -t tmpfs zor-empty /usr/lib/debug' \
        bash "$SOURCE_DIR/tests/install/installed.sh" 2>&1) ||
        fail "zor-inspect takes its debug information from elsewhere"
    [[ $log == *"there is no debug information for "*"zor-inspect ended with status 4"* ]] ||
        fail "without debug information it is said: $log"
else
    printf 'SKIPPED: the packages in the place of /usr, because nobody may mount them there: %s\n' "$log"
fi

# The example unit means what systemd takes it for, and keeps the daemon from what it does not need.
unit=$root/usr/share/doc/zor-core-tools/examples/zor-tsmon.service
program=$(sed -n 's/^ExecStart=\([^ ]*\).*/\1/p' "$unit")
[ -x "$root$program" ] || fail "the unit starts $program, which is not installed"
if command -v systemd-analyze >/dev/null; then
    sed "s,=$program,=/bin/true," "$unit" >"$SCRATCH/zor-tsmon.service" # it wants a program that is there
    log=$(systemd-analyze verify --man=no "$SCRATCH/zor-tsmon.service" 2>&1) && [ -z "$log" ] || fail "the unit: $log"
    log=$(systemd-analyze security --offline=true --threshold=20 --no-pager "$SCRATCH/zor-tsmon.service" 2>&1) ||
        fail "the unit leaves the daemon too exposed: $log"
else
    printf 'SKIPPED: the unit is not looked at, because systemd is not there\n'
fi

# Every package says who has the rights, in the words of LICENSE.
words() { sed -e 's/^ \.$//' "$@" | xargs -d '\n' printf '%s ' | tr -s ' '; }
for package in $all; do
    [[ $(words "$root/usr/share/doc/$package/copyright") == *"$(words "$SOURCE_DIR/LICENSE")"* ]] ||
        fail "$package does not have the words of LICENSE"
done

# shellcheck disable=SC2086 # several packages
dpkg_in_root --purge $all
[ "$(files)" = "$before" ] || fail "this is left after removal: $(files)"
[ ! -e "$root/usr" ] || fail "folders are left after removal: $(find "$root/usr")"
rm -rf "$SCRATCH"

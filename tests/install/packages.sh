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
[ "$names" = "libzor-core-dev libzor-core1 zor-core-tools" ] || fail "the packages are: $names"

allow_root=()
[ "$(id -u)" -ne 0 ] || allow_root=(--allow-root)
lintian "${allow_root[@]}" --fail-on error "${packages[@]}" || fail "lintian found errors (above)"

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
LD_LIBRARY_PATH=$root/usr/lib "$root/usr/bin/zor-record" --version | grep -q '1\.0\.0' ||
    fail "the installed zor-record does not tell its version"

# Every package says who has the rights, in the words of LICENSE.
words() { sed -e 's/^ \.$//' "$@" | xargs -d '\n' printf '%s ' | tr -s ' '; }
for package in libzor-core1 libzor-core-dev zor-core-tools; do
    [[ $(words "$root/usr/share/doc/$package/copyright") == *"$(words "$SOURCE_DIR/LICENSE")"* ]] ||
        fail "$package does not have the words of LICENSE"
done

dpkg_in_root --purge zor-core-tools libzor-core-dev libzor-core1
[ "$(files)" = "$before" ] || fail "this is left after removal: $(files)"
[ ! -e "$root/usr" ] || fail "folders are left after removal: $(find "$root/usr")"
rm -rf "$SCRATCH"

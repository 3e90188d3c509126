#!/usr/bin/env bash
# Builds the packages twice from the last commit, in different folders and time zones, and compares them byte
# for byte: what is handed on must come of the sources alone.
#   scripts/reproducible.sh
# It takes some minutes of two processors and about 1 GB in TMPDIR, which are free again at the end.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1:-} in
-h | --help)
    sed -n '2,5s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
esac
[ $# -eq 0 ] || die "it takes no arguments; see scripts/reproducible.sh --help"

install_packages
DIRECTORY=$(mktemp -d)
trap 'rm -rf "$DIRECTORY"' EXIT

umask 022 # cpack gives the parts of a package's archive the permissions that are left

# build_in FOLDER ZONE: the packages are in FOLDER/packages then.
build_in() {
    export TZ=$2 CCACHE_DISABLE=1 # a cache would hand the first build's objects to the second
    git clone --quiet --depth 1 "file://$ROOT" "$1" && cd "$1" &&
        cmake --preset release -DZOR_BUILD_TESTS=OFF >"$1.log" 2>&1 &&
        cmake --build --preset release >>"$1.log" 2>&1 &&
        cd build/release && cpack -G DEB -B "$1/packages" >>"$1.log" 2>&1
}
first=$DIRECTORY/first second=$DIRECTORY/another/place
mkdir "$DIRECTORY/another"
(build_in "$first" UTC) || die "the first build failed: $(tail "$first.log")"
(build_in "$second" Asia/Tokyo) || die "the second build failed: $(tail "$second.log")"

packages=("$first"/packages/*.deb)
[ ${#packages[@]} -eq 3 ] || die "there are ${#packages[@]} packages, not three"
differing=()
for package in "${packages[@]}"; do
    other=$second/packages/$(basename "$package")
    cmp "$package" "$other" || differing+=("$(basename "$package")")
done
if [ ${#differing[@]} -gt 0 ]; then
    for name in "${differing[@]}"; do
        for place in "$first" "$second"; do
            dpkg-deb -x "$place/packages/$name" "$place/content"
        done
        diff -rq "$first/content" "$second/content" >&2 || true
    done
    die "these packages differ: ${differing[*]}"
fi
say "both builds gave the same ${#packages[@]} packages"

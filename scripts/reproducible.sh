#!/usr/bin/env bash
# Builds the packages twice from the last commit, in different folders and time zones, and compares them byte
# for byte: what is handed on must come of the sources alone.
#   scripts/reproducible.sh
# It takes some minutes of two processors and about 1 GB in TMPDIR (default: /var/tmp), which are free again at the
# end. With ccache (CMAKE_CXX_COMPILER_LAUNCHER=ccache) the next run builds only what has changed since.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1:-} in
-h | --help)
    sed -n '2,6s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
esac
[ $# -eq 0 ] || die "it takes no arguments; see scripts/reproducible.sh --help"

install_packages
# The same folder every time, by which ccache finds its objects again.
DIRECTORY=${TMPDIR:-/var/tmp}/zor-reproducible-$(id -u)
exec 9>"$DIRECTORY.lock"
flock --nonblock 9 || die "it runs already, in $DIRECTORY"
rm -rf "$DIRECTORY"
mkdir "$DIRECTORY"
trap 'rm -rf "$DIRECTORY" "$DIRECTORY.lock"' EXIT

umask 022 # cpack gives the parts of a package's archive the permissions that are left

# build_in FOLDER ZONE NAMESPACE: the packages are in FOLDER/packages then.
build_in() {
    export TZ=$2 CCACHE_NAMESPACE=zor-reproducible-$3 # no object of one build comes into the other
    git clone --quiet --depth 1 "file://$ROOT" "$1" && cd "$1" &&
        cmake --preset release -DZOR_BUILD_TESTS=OFF >"$1.log" 2>&1 &&
        cmake --build --preset release >>"$1.log" 2>&1 &&
        cd build/release && cpack -G DEB -B "$1/packages" >>"$1.log" 2>&1
}
first=$DIRECTORY/first second=$DIRECTORY/another/place
mkdir "$DIRECTORY/another"
(build_in "$first" UTC first) || die "the first build failed: $(tail "$first.log")"
(build_in "$second" Asia/Tokyo second) || die "the second build failed: $(tail "$second.log")"

packages=("$first"/packages/*.deb)
[ ${#packages[@]} -eq 5 ] || die "there are ${#packages[@]} packages, not five"
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

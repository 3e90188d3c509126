#!/usr/bin/env bash
# Makes a minimal system of a Debian release and runs README's two commands there, on a clean clone of
# the last commit: what meets a new user.
#   scripts/bare.sh RELEASE [OPTIONS] [CTEST ARGUMENTS...]
# RELEASE is bookworm or trixie. Options:
#   --demo                   runs scripts/demo.sh only
#   --minutes N              gives up after N minutes
#   --programs "PROGRAM..."  builds these test programs only and runs only their tests
#   --packages               instead of README's commands: installs the packages that this machine builds, uses
#                            them there as root and as a user without rights, and purges them
#   --packages-from FOLDER   the same with packages that are there already
# Other arguments go to ctest (scripts/bare.sh trixie -R Queue).
# Packages of one release serve it and later ones, so those of Debian 12 are tried on both.
# What is installed comes from the mirror of this machine's apt. It needs root or sudo, the kernel's leave to
# mount, and about 5 GB in TMPDIR (default: /var/tmp), which are free again at the end.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

usage() { sed -n '2,16s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"; }

# In namespaces of its own for mounts and processes: they are gone when its first process is, however
# that ends. It gets the directory, the release, the mirror, the minutes and what to run. The system is the
# namespace's root and not that of a chroot, where nobody may make a namespace for users.
# shellcheck disable=SC2016 # it is expanded there
INSIDE='
set -euo pipefail
system=$1/system release=$2 mirror=$3 minutes=$4
shift 4
mkdir "$system"
mount --bind "$system" "$system" # so that its root is a mount, as in any system
debootstrap --variant=minbase "$release" "$system" "$mirror" >"$system.log" 2>&1 || {
    tail -n 20 "$system.log" >&2
    exit 120
}
mv "$system/../clone" "$system/root/zor-core"
mv "$system/../apt.conf" "$system/etc/apt/apt.conf.d/90bare"
[ ! -d "$system/../packages" ] || mv "$system/../packages" "$system/var/packages"
cp -L /etc/resolv.conf "$system/etc/resolv.conf"
mount -t proc proc "$system/proc"
mount -t sysfs -o ro sysfs "$system/sys"
mount --rbind /dev "$system/dev"
proxies=()
for name in http_proxy https_proxy no_proxy; do
    [ -z "${!name-}" ] || proxies+=("$name=${!name}")
done
cd "$system"
mkdir old
pivot_root . old
umount --lazy /old
rmdir /old
timeout --kill-after=10 "${minutes}m" env -i "${proxies[@]}" HOME=/root LANG=C.UTF-8 TERM="${TERM:-dumb}" \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    /bin/bash -euc "cd /root/zor-core; $1" bash "${@:2}"
'

# Where this machine has its Debian packages from.
mirror() {
    # shellcheck disable=SC2016 # the words are apt's
    apt-get indextargets --format '$(REPO_URI) $(ORIGIN) $(LABEL)' |
        awk '$2 == "Debian" && $3 == "Debian" && !found { print $1; found = 1 }'
}

DIRECTORY=
CHILD=
BUILT=
cleanup() {
    trap - EXIT
    [ -z "$BUILT" ] || rm -rf "$BUILT"
    [ -z "$CHILD" ] || kill -KILL "$CHILD" 2>/dev/null || true
    wait || true # its mounts are gone then, so that nothing else is removed
    [ -z "$DIRECTORY" ] || rm -rf --one-file-system "$DIRECTORY"
}

minutes=0 # no bound
demo_only=false
programs=()
packages= # where they are; "build" for those that are to be built
case ${1-} in
-h | --help)
    usage
    exit 0
    ;;
bookworm | trixie) release=$1 ;;
*) die "which release, bookworm or trixie? (see --help)" ;;
esac
shift
tests=()
while [ $# -gt 0 ]; do
    case $1 in
    --demo) demo_only=true ;;
    --minutes)
        [[ ${2-} =~ ^[1-9][0-9]*$ ]] || die "--minutes takes a number, not '${2-}'"
        minutes=$2
        shift
        ;;
    --programs)
        [ -n "${2-}" ] || die "--programs takes the names of test programs"
        programs=(--programs "$2")
        shift
        ;;
    --packages) packages=build ;;
    --packages-from)
        compgen -G "${2-}/*.deb" >/dev/null || die "--packages-from takes a folder with packages, not '${2-}'"
        packages=$(realpath "$2")
        shift
        ;;
    *) tests+=("$1") ;;
    esac
    shift
done

# As who has called this: what is built in a user's tree is the user's.
if [ "$packages" = build ]; then
    install_packages
    build release -DZOR_BUILD_TESTS=OFF
    BUILT=$(mktemp -d "${TMPDIR:-/var/tmp}/zor-bare-packages.XXXXXX")
    trap cleanup EXIT
    (umask 022 && cd "$ROOT/build/release" && cpack -G DEB -B "$BUILT" >&2) || die "there are no packages (see above)"
    packages=$BUILT
fi

if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || die "it must be root to make a system, and there is no sudo"
    sudo -n true 2>/dev/null || [ -t 0 ] ||
        die "it must be root to make a system; sudo wants a password and there is no terminal to ask on"
    arguments=("$release")
    ! $demo_only || arguments+=(--demo)
    [ "$minutes" -eq 0 ] || arguments+=(--minutes "$minutes")
    [ -z "$packages" ] || arguments+=(--packages-from "$packages")
    sudo "TMPDIR=${TMPDIR:-/var/tmp}" "$ROOT/scripts/$SCRIPT" "${arguments[@]}" "${programs[@]}" "${tests[@]}"
    exit
fi

command -v apt-get >/dev/null || die "this needs a Debian system: it uses apt's mirror"
for tool in debootstrap git; do
    if ! command -v "$tool" >/dev/null; then
        say "package to install: $tool"
        apt-get update >&2 && apt-get install -y --no-install-recommends "$tool" >&2 ||
            die "$tool cannot be installed (see above)"
    fi
done
MIRROR=$(mirror)
if [ -z "$MIRROR" ]; then # apt has not looked yet
    apt-get update >&2 || die "the package lists cannot be updated (see above)"
    MIRROR=$(mirror)
    [ -n "$MIRROR" ] || die "this machine's apt knows no mirror of Debian"
fi

trap cleanup EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
DIRECTORY=$(mktemp -d "${TMPDIR:-/var/tmp}/zor-bare.XXXXXX")
chmod 755 "$DIRECTORY"
git clone --quiet --depth 1 "file://$ROOT" "$DIRECTORY/clone" ||
    die "$ROOT cannot be cloned (see above)"
[ -z "$(git -C "$ROOT" status --porcelain)" ] || say "what is not committed is left out"
if [ -n "$packages" ]; then
    mkdir "$DIRECTORY/packages"
    cp "$packages"/*.deb "$DIRECTORY/packages"
fi
for setting in http https Check-Valid-Until Check-Date Retries; do
    apt-config dump "Acquire::$setting"
done >"$DIRECTORY/apt.conf"

commands='scripts/demo.sh'
# shellcheck disable=SC2016 # it is expanded there
$demo_only || commands+='; scripts/test.sh dev "$@"'
[ -z "$packages" ] || commands='tests/install/stranger.sh /var/packages'
what="README's commands pass"
[ -z "$packages" ] || what="the packages serve a stranger"
say "making a minimal system of $release"
unshare --mount --propagation private --pid --fork --kill-child /bin/bash -c "$INSIDE" bash \
    "$DIRECTORY" "$release" "$MIRROR" "$minutes" "$commands" "${programs[@]}" "${tests[@]}" &
CHILD=$!
status=0
wait "$CHILD" || status=$?
CHILD=
case $status in
0) say "$what in $release" ;;
120) die "$release cannot be made (see above)" ;;
124 | 137) die "not done after $minutes minutes" ;;
*) die "failed in $release (see above)" ;;
esac

#!/usr/bin/env bash
# In a minimal system where nothing else matters, as root: installs the packages of a folder with what they depend
# on, uses them as root and as a user without rights, purges them, and looks for what is left.
#   stranger.sh FOLDER
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/support.sh"
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

packages=("$1"/*.deb)
mapfile -t names < <(for package in "${packages[@]}"; do dpkg-deb -f "$package" Package; done)
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
# What the packages leave to their users: a compiler and its tools, and a reader of manual pages.
apt-get install -y -qq --no-install-recommends "${packages[@]}" \
    cmake g++ libgtest-dev man-db ninja-build pkg-config >/dev/null

printf 'as root\n'
mkdir /var/tmp/of-root
SOURCE_DIR=$PWD SCRATCH=/var/tmp/of-root bash tests/install/installed.sh
rm -rf /var/tmp/of-root "$PID_FILE.test-lock"

printf 'as a user\n'
useradd --create-home --shell /bin/bash stranger
home=/home/stranger
mkdir -p $home/zor-core/examples $home/scratch
cp -r examples/data $home/zor-core/examples
mkdir $home/zor-core/tests
cp -r tests/install $home/zor-core/tests
chown -R stranger: $home
# as_stranger COMMANDS: with the functions of support.sh.
as_stranger() {
    (cd $home && runuser -u stranger -- env HOME=$home SOURCE_DIR=$home/zor-core SCRATCH=$home/scratch \
        BUILD_DIR=/no/build bash -euo pipefail -c ". zor-core/tests/install/support.sh; $1")
}
# shellcheck disable=SC2016 # it is expanded there
{
    as_stranger 'bash $SOURCE_DIR/tests/install/installed.sh'
    as_stranger 'build_with_find_package /usr $HOME/cmake; run_daemon "" $HOME/cmake/consumer "counted 7"
        run_daemon "" $HOME/cmake/kit-consumer "counted 7"'
    as_stranger 'build_with_pkg_config /usr $HOME/with-pkg-config; run_daemon "" $HOME/with-pkg-config "counted 7"'
    as_stranger 'test_with_find_package /usr $HOME/tests; simulate_with_find_package /usr $HOME/tests'
}

printf 'purged\n'
mapfile -t files < <(dpkg -L "${names[@]}" | sort -u)
[ ${#files[@]} -gt 100 ] || fail "the packages have ${#files[@]} files only"
apt-get purge -y -qq "${names[@]}" >/dev/null
left=()
for file in "${files[@]}"; do
    [ ! -e "$file" ] && [ ! -L "$file" ] || dpkg -S "$file" >/dev/null 2>&1 || [ "$file" = /. ] || left+=("$file")
done
[ ${#left[@]} -eq 0 ] || fail "this is left: ${left[*]}"
! known=$(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "${names[@]}" 2>/dev/null) || fail "dpkg has: $known"
! ldconfig -p | grep zor || fail "the loader knows the libraries above"

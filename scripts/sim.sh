#!/usr/bin/env bash
# Runs the unit-test programs under zor-sim, each with N seeds of every strategy.
#   scripts/sim.sh [N]
# N is 20 unless given; a night takes some thousands. The programs that cannot run so stand in
# tests/sim/not-simulated.txt, each with the reason; those that only take too long for every test run
# are run here.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1:-} in
-h | --help)
    sed -n '2,6s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
esac
seeds=${1:-20}
[[ $seeds =~ ^[1-9][0-9]*$ ]] || die "the number of seeds is a number, not '$seeds'"

install_packages
build dev
cd "$ROOT"
bin=build/dev/bin
mapfile -t left_out < <(sed -e '/# only scripts\/sim.sh/d' -e 's/#.*//' -e 's/ .*//' -e '/^$/d' tests/sim/not-simulated.txt)
failed=()
ran=0
for program in "$bin"/[A-Z]*Test; do
    name=$(basename "$program")
    [[ " ${left_out[*]} " != *" $name "* ]] || continue
    ran=$((ran + 1))
    for strategy in random sticky pct; do
        "$bin/zor-sim" --seeds "1..$seeds" --strategy "$strategy" --jobs "$(nproc)" -- "$program" ||
            failed+=("$name ($strategy)")
    done
done
[ "$ran" -gt 0 ] || die "there is no unit-test program in $bin"
[ ${#failed[@]} -eq 0 ] || die "found something in: ${failed[*]}"
say "nothing found in $ran programs with $seeds seeds of every strategy"

#!/usr/bin/env bash
# Runs the unit-test programs under zor-sim, each with N seeds of every strategy, and the storm with a tenth
# of them.
#   scripts/sim.sh [N]
#   scripts/sim.sh --guards [N]     how many of N seeds find that a guard is gone (docs/simulator.md)
# N is 20 unless given, 300 for the guards; a night takes some thousands. The programs that cannot run so
# stand in tests/sim/not-simulated.txt, each with the reason; those that only take too long for every test
# run are run here.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

case ${1:-} in
-h | --help)
    sed -n '2,8s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
--guards)
    guards=1
    shift
    ;;
esac
seeds=${1:-${guards:+300}}
seeds=${seeds:-20}
[[ $seeds =~ ^[1-9][0-9]*$ ]] || die "the number of seeds is a number, not '$seeds'"

install_packages
build dev
cd "$ROOT"
bin=build/dev/bin
if [ -n "${guards:-}" ]; then
    exec tests/sim/guards/run.sh "$bin/zor-sim" "$bin/sim-guards" build/dev/tests/sim/guards/guards.txt \
        --measure "$seeds"
fi
mapfile -t left_out < <(sed -e '/# only scripts\/sim.sh/d' -e 's/#.*//' -e 's/ .*//' -e '/^$/d' tests/sim/not-simulated.txt)
failed=()
ran=0
# search NAME SEEDS COMMAND...: all strategies.
search() {
    local name=$1 last=$2 strategy
    shift 2
    ran=$((ran + 1))
    for strategy in random sticky pct; do
        "$bin/zor-sim" --seeds "1..$last" --strategy "$strategy" --jobs "$(nproc)" --limit 600 -- "$@" ||
            failed+=("$name ($strategy)")
    done
}
for program in "$bin"/[A-Z]*Test; do
    name=$(basename "$program")
    [[ " ${left_out[*]} " != *" $name "* ]] || continue
    search "$name" "$seeds" "$program"
done
[ "$ran" -gt 0 ] || die "there is no unit-test program in $bin"
# One virtual second, about five million steps.
search zor-storm "$(((seeds + 9) / 10))" "$bin/zor-storm" --seconds 1 --threads 3 --tasks 5 --seed "$seeds"
[ ${#failed[@]} -eq 0 ] || die "found something in: ${failed[*]}"
say "nothing found in $ran programs with $seeds seeds of every strategy"

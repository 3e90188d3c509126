#!/usr/bin/env bash
# Changes the sources in one place at a time and sees whether the unit tests notice: comparisons,
# constants, calls, conditions, results. Works on a copy below build/mutate; it takes hours.
#   scripts/mutate.sh --help          all options
#   scripts/mutate.sh --sample 15     15 mutants of each source
#   scripts/mutate.sh --resume        all of them, going on where a run was stopped
# tests/mutation/explained.txt has the changes that no test can notice, and why.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

install_packages
install_packages "$ROOT/scripts/mutate-packages.txt"
# The packages are for the system's Python, whatever other one comes first.
exec nice /usr/bin/python3 -B "$ROOT/tests/mutation/mutate.py" "$@"

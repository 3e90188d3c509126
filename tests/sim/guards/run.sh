#!/usr/bin/env bash
# Runs a guard's scene under zor-sim: with the guard nothing may be found, without it something must be.
#   run.sh ZOR_SIM PROGRAM GUARDS_TXT GUARD
#   run.sh ZOR_SIM PROGRAM GUARDS_TXT --measure SEEDS     (all of them, as rows of a table)
set -euo pipefail

sim=$1
program=$2
list=$3
export ZOR_DLOG=none

# play LIBRARIES SCENE OPTIONS...: what zor-sim prints of it.
play() {
    local libraries=$1 scene=$2
    shift 2
    LD_LIBRARY_PATH=$libraries "$sim" "$@" -- "$program" "$scene" 2>&1
}

check() {
    local found=0
    play "$kept" "$scene" --seeds "1..$seeds" "${options[@]}" ||
        { echo "FAILED: something is found although the guard is there (above)"; exit 1; }
    play "$removed" "$scene" --seeds "1..$seeds" "${options[@]}" || found=$?
    [ "$found" -eq 1 ] || { echo "FAILED: nothing is found in $seeds seeds without the guard"; exit 1; }
}

# share STRATEGY: how many of the seeds find it, in percent.
share() {
    local output
    output=$(play "$removed" "$scene" --seeds "1..$measured" --strategy "$1" --keep-going "${options[@]}" || true)
    sed -n 's/^zor-sim: [0-9]* runs.* s: //p' <<<"$output" | awk -v runs="$measured" '
        { for (i = 1; i <= NF; ++i) if ($i ~ /^[0-9]+$/) found += $i }
        END { printf "%.0f %%", 100 * found / runs }'
}

known=0
while IFS='|' read -r guard scene seeds kept removed text; do
    read -ra options <<<"$text"
    if [ "$4" = --measure ]; then
        measured=$5
        known=1
        echo "| $guard | $scene | $(share random) | $(share sticky) | $(share pct) | $seeds |"
    elif [ "$4" = "$guard" ]; then
        known=1
        check
    fi
done <"$list"
[ "$known" -eq 1 ] || { echo "FAILED: $list has no guard '$4'"; exit 1; }

#!/usr/bin/env bash
# check.sh COMPILER SOURCE [FLAGS...]: compiles a snippet, which must fail with one error line that
# matches what its first line expects, or compile if that is `nothing`.
set -uo pipefail
compiler=$1
source=$2
shift 2
expected=$(sed -n '1s|^// expected: ||p' "$source")
[ -n "$expected" ] || { echo "$source does not say what is expected" >&2; exit 1; }
output=$(LC_ALL=C "$compiler" -std=c++17 -fsyntax-only -fdiagnostics-color=never "$@" "$source" 2>&1)
status=$?
if [ "$expected" = nothing ]; then
    [ "$status" -eq 0 ] || { printf 'it does not compile:\n%s\n' "$output" >&2; exit 1; }
    exit 0
fi
[ "$status" -ne 0 ] || { echo "it compiles" >&2; exit 1; }
grep -m1 'error:' <<<"$output" | grep -qE "$expected" ||
    { printf 'the first error does not match "%s":\n%s\n' "$expected" "$output" >&2; exit 1; }

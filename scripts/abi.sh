#!/usr/bin/env bash
# Compares the library's binary interface with the one that was agreed on, abi/libzor-core.abi.
#   scripts/abi.sh            exits with 1 and shows what differs
#   scripts/abi.sh --accept   writes the present interface into that file
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

AGREED=$ROOT/abi/libzor-core.abi
LIBRARY=$ROOT/build/dev/lib/libzor-core.so

accept=
case ${1:-} in
'') ;;
--accept) accept=yes ;;
-h | --help)
    sed -n '2,4s/^# \{0,1\}//p' "${BASH_SOURCE[0]}"
    exit 0
    ;;
*) die "unknown argument '$1'; see scripts/abi.sh --help" ;;
esac

install_packages
build dev zor-core
# Only what the public headers show: the standard library's insides are not ours to promise.
present=$(mktemp --suffix=.abi)
trap 'rm -f "$present"' EXIT
abidw --exported-interfaces-only --drop-undefined-syms --drop-private-types --no-parameter-names \
    --headers-dir "$ROOT/inc" --headers-dir "$ROOT/platform/inc" --no-corpus-path \
    --no-comp-dir-path --no-show-locs --no-elf-needed --type-id-style hash \
    --out-file "$present" "$LIBRARY"
sed -i "s#path='$ROOT/#path='#" "$present" # the same wherever the sources stand

if [ -n "$accept" ]; then
    mkdir -p "$(dirname "$AGREED")"
    cp "$present" "$AGREED"
    say "abi/libzor-core.abi is the present interface; commit it together with the change, say in" \
        "CHANGELOG.md what changed, and raise the version: the major one (and with it the soname)" \
        "if programs must be built anew, else the minor one"
    exit 0
fi
[ -e "$AGREED" ] || die "abi/libzor-core.abi is missing; scripts/abi.sh --accept writes it"
abidiff --no-show-locs "$AGREED" "$present" ||
    die "the binary interface differs from abi/libzor-core.abi (above). If that was not meant, undo it:" \
        "programs built against the library would break or miss something. If it was, run" \
        "scripts/abi.sh --accept and commit the file"
say "the binary interface is the agreed one"

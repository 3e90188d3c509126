#!/usr/bin/env bash
# The table of layouts in the library is what the compiler says; and a library whose table is wrong in one
# place is found out.
#   compare.sh LIBRARY SCRATCH_FILE
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
library=$1 copy=$2

compare() {
    gdb -batch -nx -iex "set auto-load off" -ex 'set debuginfod enabled off' -ex "source $here/compare.py" "$1"
}

compare "$library"

# differs NAME BYTE: with BYTE added to what stands behind NAME, the comparison fails and names it.
differs() {
    local output
    cp "$library" "$copy"
    python3 - "$copy" "$1" "$2" <<'PYTHON'
import sys
path, name, at = sys.argv[1], sys.argv[2].encode().ljust(48, b"\0"), int(sys.argv[3])
with open(path, "rb") as file:
    data = bytearray(file.read())
found = data.find(name)
assert found >= 0 and data.find(name, found + 1) < 0, "the entry is to be found once"
data[found + 48 + at] ^= 4
with open(path, "wb") as file:
    file.write(data)
PYTHON
    if output=$(compare "$copy"); then
        echo "$1 with another byte $2 is not found: $output"
        exit 1
    fi
    grep -qF "$1: offset, size and kind are" <<<"$output" || { echo "of $1: $output" && exit 1; }
}

differs TCQueue.m_count 0
differs TCTask.m_handledEvents.m_type 4
differs TCTask.m_paused 8
differs TCTask:TCHandler 0
differs std::set.leftmost 0
differs TCTask 4
rm -f "$copy"

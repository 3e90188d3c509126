#!/usr/bin/env bash
# The check of the atomics against their table finds what it is for.
#   table.sh PYTHON SOURCE_TREE SCRATCH
set -euo pipefail
python=$1 tree=$2 scratch=$3
rm -rf "$scratch"
mkdir -p "$scratch/tests/models"
cp -r "$tree"/{src,inc,kit,platform,docs} "$scratch"
cp -r "$tree/tests/models/memory" "$scratch/tests/models"

check() { "$python" "$tree/scripts/atomics.py" --root "$scratch"; }

# finds FILE SED_SCRIPT MESSAGE: with FILE edited so, the check fails and says MESSAGE.
finds() {
    local output
    cp "$scratch/$1" "$scratch/kept"
    sed -i "$2" "$scratch/$1"
    ! cmp -s "$scratch/$1" "$scratch/kept" || { echo "$2 does not change $1" && exit 1; }
    ! output=$(check) || { echo "$2 in $1 is not found" && exit 1; }
    grep -qF "$3" <<<"$output" || { echo "$2 in $1: '$output' instead of '$3'" && exit 1; }
    cp "$scratch/kept" "$scratch/$1"
}

check
finds src/Debug.cpp '$a std::atomic<int> g_new{0};' 'the atomic g_new has no row'
finds src/Debug.cpp '$a void F(std::atomic<int>* x) { x->store(1, std::memory_order_release); }' \
    'an access to x (release) has no row'
finds src/UseGate.h 's/!m_gate->m_closed;/!m_gate->m_closed.load(std::memory_order_acquire);/' \
    'the row of m_closed in docs/architecture.md does not name acquire'
finds src/Semaphore.cpp 's/fetch_sub(1, std::memory_order_acq_rel)/fetch_sub(1, std::memory_order_relaxed)/' \
    'nothing is accessed with acq_rel'
finds src/Debug.cpp '$a void F() { std::atomic_thread_fence(std::memory_order_seq_cst); }' 'a fence has no object'
finds docs/architecture.md '/`holders`/d' 'the atomic holders has no row'
finds tests/models/memory/SemaphoreMemoryTest.cpp 's/ExpectFails<Holders<false>>.*/ExpectHolds<Holders<true>>();/' \
    'no model Holders that holds and fails without its guard'
rm -rf "$scratch"

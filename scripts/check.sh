#!/usr/bin/env bash
# Checks the sources without running them. Each message says how to mend what it found.
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"

install_packages
cd "$ROOT"
failed=0
fail() {
    say "$*"
    failed=1
}

mapfile -t sources < <(git ls-files '*.cpp' '*.h')

say "format of ${#sources[@]} files"
clang-format --dry-run -Werror "${sources[@]}" ||
    fail "the format differs; run: clang-format -i \$(git ls-files '*.cpp' '*.h')"

# include_rule DIRECTORY PATTERN MEND: nothing below DIRECTORY may include what matches PATTERN.
include_rule() {
    local found
    found=$(git grep -nE "#include [<\"]($2)" -- "$1" || true)
    [ -z "$found" ] || fail "$1 must not include this: $3"$'\n'"$found"
}
say "include directions"
runtime='(Alarm|Debug|DebugMenuUtility|Event|FailedAssertion|HandledEvents|LayoutTable|KeyCombinationLoggerRegistration|Main|MultiQTask|Queue'
runtime+='|ReleasedData|RWLock'
runtime+='|StateAlarm|Sync|Task|Thread|ThreadUtil|Timer|TimersScheduler|TrapPoint|TVInfoBox'
runtime+='|WatchdogNotifier|ZorServiceDebug|ZorServiceDebugOverlay|ZorExport)\.h'
include_rule platform "$runtime" "the platform knows nothing of the runtime; move the code to src/"
include_rule inc 'zor/|\.\./|.*src/' "public headers stand on inc/ and platform/inc/ alone"
include_rule kit '\.\./|.*(src|platform/host)/' "the kit stands on the public headers alone"
include_rule src 'zor/' "the runtime knows nothing of the kit"
include_rule examples '.*(src|platform/host)/' "examples use the installed headers only"
include_rule testing '.*(src|platform/host|tests)/' "zor::testing uses the installed headers only"
include_rule inc 'zor/testing/' "the runtime knows nothing of what it is tested with"
include_rule src/Debug.cpp '(Thread|Queue|Task|ZorServiceDebugOverlay)\.h' \
    "debug print and assertions know nothing above them"
include_rule src/ZorServiceDebugOverlay.cpp '(Thread|Queue|Task)\.h' \
    "the logging front knows nothing above it"
include_rule inc/Thread.h '(Queue|Event|Task)\.h' "use a forward declaration"

say "sizes"
for file in "${sources[@]}"; do
    case $file in
    *.h) limit=300 ;;
    tests/*) limit=1000 ;;
    *) limit=500 ;;
    esac
    lines=$(wc -l <"$file")
    case $file in
    inc/ZorFunctionIndices.h) limit=350 ;; # one reader, all of it constexpr
    inc/TrapPoint.h) limit=350 ;;          # one template that stands around every call
    esac
    [ "$lines" -le "$limit" ] ||
        fail "$file has $lines lines, more than $limit: split it by concern"
done

say "atomics and their table"
scripts/atomics.py ||
    fail "an atomic differs from its row (above): in docs/architecture.md say who writes and reads it, and" \
        "why its order suffices, and let a model of tests/models/memory show it"

say "every public header alone"
git ls-files 'inc/*.h' 'platform/inc/*.h' 'testing/inc/*.h' 'kit/inc/*.h' | xargs -P "$(nproc)" -I{} \
    g++ -std=c++17 -fsyntax-only -Wall -Wextra -Wpedantic -Werror -I inc -I platform/inc \
    -I testing/inc -I kit/inc -include {} -x c++ /dev/null ||
    fail "a header (above) does not compile by itself: include what it uses, or declare it"

build dev
say "clang-tidy over src/, platform/host/ and testing/"
git ls-files 'src/*.cpp' 'platform/host/*.cpp' 'testing/src/*.cpp' | xargs -P "$(nproc)" -n 1 \
    clang-tidy --quiet -p build/dev --warnings-as-errors='*' 2>/dev/null ||
    fail "clang-tidy found something (above); mend it, or silence that one line with" \
        "NOLINT(check-name) and the reason"

say "cppcheck"
cppcheck --quiet --std=c++17 --language=c++ --enable=warning,performance,portability \
    --inline-suppr --error-exitcode=1 --suppress=missingIncludeSystem \
    -I inc -I platform/inc src platform/host ||
    fail "cppcheck found something (above); mend it, or silence that one line with" \
        "a cppcheck-suppress comment and the reason"

say "binary interface"
scripts/abi.sh || fail "the binary interface differs (above)"

say "documentation"
scripts/docs.sh ||
    fail "the documentation has gaps (above): give each public symbol named there a docstring (what," \
        "units, ranges, result, assertions, threads, owner) and mend what cannot be resolved"

[ "$failed" -eq 0 ] || die "something is to be mended (see above)"
say "all checks passed"

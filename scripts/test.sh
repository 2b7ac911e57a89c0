#!/usr/bin/env bash
# The full check: a normal build in build/ and a sanitizer build in
# build-asan/, the whole test suite in both, and a ThreadSanitizer build in
# build-tsan/ running the world tests that exercise concurrency. Fails on
# any failed test, on any sanitizer report, and, when CI=true, on any
# skipped world test.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
bash scripts/install-deps.sh

jobs=${KESTREL_JOBS:-2}
status=0

# run_suite DIR TESTS CMAKE-ARGS...: TESTS is a ctest -R pattern.
run_suite() {
    local dir=$1 tests=$2
    shift 2
    echo "=== $dir: configure and build"
    cmake -S . -B "$dir" "$@"
    cmake --build "$dir" -j"$jobs"

    echo "=== $dir: tests"
    local summary="$dir/ctest-summary.log"
    # Every world test builds its own namespaces, so tests may run side by side.
    if ! (cd "$dir" && ctest --output-on-failure -j"$jobs" -R "$tests") 2>&1 | tee "$summary"; then
        echo "*** $dir: tests failed"
        status=1
    fi
    # The full output of every test, passed or not, lands in LastTest.log.
    local markers='runtime error:|AddressSanitizer|LeakSanitizer|ThreadSanitizer'
    if grep -nE "$markers" "$dir/Testing/Temporary/LastTest.log" "$summary"; then
        echo "*** $dir: sanitizer report in the test output"
        status=1
    fi
    if [ "${CI:-}" = "true" ] && grep -nF '(Skipped)' "$summary"; then
        echo "*** $dir: tests were skipped under CI=true"
        status=1
    fi
}

export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}

run_suite build . -DCMAKE_BUILD_TYPE=RelWithDebInfo
run_suite build-asan . -DCMAKE_BUILD_TYPE=Debug -DKESTREL_SANITIZE=ON
run_suite build-tsan 'world-(responsiveness|printers|printing|service|jobs|authorization|changes)' -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKESTREL_SANITIZE=thread -DKESTREL_BUILD_BENCHMARKS=OFF

if [ "$status" -ne 0 ]; then
    echo "=== FAILED"
    exit 1
fi
echo "=== all tests passed in build/, build-asan/ and build-tsan/"

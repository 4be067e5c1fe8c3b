#!/usr/bin/env bash
# Builds and runs the whole test suite twice: a Release build, then an
# AddressSanitizer + UndefinedBehaviorSanitizer build; then the tests of the
# threaded grid evaluators under ThreadSanitizer.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh" --tests
jobs="$(nproc 2>/dev/null || echo 2)"

echo "== Release build"
"$root/scripts/build.sh" "$root/build/release" -DCMAKE_BUILD_TYPE=Release -DKVX_TESTS=ON -DKVX_BENCH=ON
(cd "$root/build/release" && ctest --output-on-failure -j "$jobs")

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
"$root/scripts/build.sh" "$root/build/asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVX_SANITIZE=ON -DKVX_TESTS=ON -DKVX_BENCH=OFF
(cd "$root/build/asan" && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --output-on-failure -j "$jobs")

echo "== ThreadSanitizer build: the threaded grids"
KVX_TARGET="kalvex kvx_tests" "$root/scripts/build.sh" "$root/build/tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKVX_SANITIZE_THREAD=ON -DKVX_TESTS=ON -DKVX_BENCH=OFF
(cd "$root/build/tsan" && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --output-on-failure -j "$jobs" -R "GridThreads|BlockEvaluator.EveryThreadCount")

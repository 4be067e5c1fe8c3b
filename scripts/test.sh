#!/usr/bin/env bash
# Builds and runs the whole test suite twice: a Release build, then an
# AddressSanitizer + UndefinedBehaviorSanitizer build, then the tests of the
# threaded evaluators under ThreadSanitizer, then (with clang) short fuzz runs
# of every reader (scripts/fuzz.sh smoke). The tests run with a temporary
# folder of their own as TMPDIR, which must be empty afterwards: a test that
# leaves a file behind fails the run.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh" --tests
jobs="$(nproc 2>/dev/null || echo 2)"
scratch="$(mktemp -d "${TMPDIR:-/tmp}/kvx_tests.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT

left_behind() {
    if [ -n "$(ls -A "$scratch")" ]; then
        echo "tests left files in their temporary folder:" >&2
        ls -A "$scratch" >&2
        exit 1
    fi
}

echo "== Release build"
"$root/scripts/build.sh" "$root/build/release" -DCMAKE_BUILD_TYPE=Release -DKVX_TESTS=ON -DKVX_BENCH=ON
(cd "$root/build/release" && TMPDIR="$scratch" ctest --output-on-failure -j "$jobs")
left_behind

echo "== AddressSanitizer + UndefinedBehaviorSanitizer build"
"$root/scripts/build.sh" "$root/build/asan" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVX_SANITIZE=ON -DKVX_TESTS=ON -DKVX_BENCH=OFF
(cd "$root/build/asan" && TMPDIR="$scratch" ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j "$jobs")
left_behind

echo "== ThreadSanitizer build: the threaded evaluators"
KVX_TARGET="kalvex kvx_tests" "$root/scripts/build.sh" "$root/build/tsan" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKVX_SANITIZE_THREAD=ON -DKVX_TESTS=ON -DKVX_BENCH=OFF
(cd "$root/build/tsan" && TMPDIR="$scratch" TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --output-on-failure -j "$jobs" -R "GridThreads|BlockEvaluator.EveryThreadCount|Multipoles.ThreadCount|Multipoles.Memmax|KalvexRun.ThreadCount|ChelpFit.SameReport|Parallel")
left_behind

echo "== Fuzz smoke runs (clang libFuzzer, ASan + UBSan): reproducers, then a few seconds per reader"
"$root/scripts/fuzz.sh" smoke

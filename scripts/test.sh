#!/usr/bin/env bash
# Builds and runs the whole test suite twice: a Release build, then an
# AddressSanitizer + UndefinedBehaviorSanitizer build, then (with clang) short fuzz runs
# of every reader (scripts/fuzz.sh smoke).
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

echo "== Fuzz smoke runs (clang libFuzzer, ASan + UBSan): reproducers, then a few seconds per reader"
"$root/scripts/fuzz.sh" smoke

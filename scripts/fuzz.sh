#!/usr/bin/env bash
# Fuzzing the readers with libFuzzer (clang), ASan and UBSan: one target per
# reader in fuzz/, each with its seed corpus in fuzz/corpus/NAME and the
# inputs of faults found earlier in fuzz/reproducers/NAME.
#
#   scripts/fuzz.sh smoke [SECONDS]           every reproducer once, then every
#                                             target SECONDS (default 4) from its seeds
#   scripts/fuzz.sh campaign [RUNS] [NAME...] RUNS runs (default 1000000) per target,
#                                             one target at a time, at nice 19; the
#                                             corpus grows in build/fuzz/corpus/NAME
#
# Builds in build/fuzz (or $KVX_FUZZ_BUILD). Without clang++ and libFuzzer it
# says so and ends with status 0. A crash, a hang (a run over its time
# limit) or an out-of-memory report fails, with the input in build/fuzz/found.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${KVX_FUZZ_BUILD:-$root/build/fuzz}"
mode="${1:-smoke}"
[ $# -gt 0 ] && shift

case "$mode" in
    smoke | campaign) ;;
    *) echo "usage: scripts/fuzz.sh smoke [SECONDS] | campaign [RUNS] [NAME...]" >&2; exit 2 ;;
esac

cxx="${KVX_FUZZ_CXX:-$(command -v clang++ || true)}"
probe="$(mktemp -d)"
trap 'rm -rf "$probe"' EXIT
echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' >"$probe/p.cpp"
if [ -z "$cxx" ] || ! "$cxx" -fsanitize=fuzzer,address,undefined "$probe/p.cpp" -o "$probe/p" 2>/dev/null; then
    echo "fuzz: clang++ with libFuzzer not found; fuzz runs skipped"
    exit 0
fi

targets=()
for src in "$root"/fuzz/*_fuzz.cpp; do
    name="$(basename "$src" .cpp)"
    targets+=("${name%_fuzz}")
done
if [ "$mode" = campaign ] && [ $# -gt 1 ]; then
    targets=("${@:2}")
fi

echo "== Fuzz targets (clang: $cxx)"
jobs="$(nproc 2>/dev/null || echo 2)"
cmake -S "$root" -B "$build" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKVX_FUZZ=ON \
    -DKVX_TESTS=OFF -DKVX_BENCH=OFF >/dev/null
# shellcheck disable=SC2046  # a list of targets
cmake --build "$build" -j "$jobs" --target $(printf '%s_fuzz ' "${targets[@]}")

found="$build/found"
mkdir -p "$found"
# Limits: over 2 GB resident or one allocation over 1 GB is out of memory;
# a run over 25 s (120 s in a campaign at nice 19 on a shared machine) is
# a hang.
limits=(-rss_limit_mb=2048 -malloc_limit_mb=1024 -artifact_prefix="$found/")
# A small quarantine and no fill of new blocks: twice the runs a second (the
# readers allocate afresh on every run, and ASan's defaults make each
# allocation touch fresh pages).
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:quarantine_size_mb=16:max_malloc_fill_size=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

failed=0
if [ "$mode" = smoke ]; then
    seconds="${1:-4}"
    for t in "${targets[@]}"; do
        bin="$build/${t}_fuzz"
        log="$build/$t.smoke.log"
        repro=()
        [ -d "$root/fuzz/reproducers/$t" ] && mapfile -t repro < <(find "$root/fuzz/reproducers/$t" -type f | sort)
        if [ ${#repro[@]} -gt 0 ] && ! "$bin" "${limits[@]}" -timeout=25 "${repro[@]}" >"$log" 2>&1; then
            echo "fuzz: $t: a reproducer fails again (log: $log)"
            failed=1
            continue
        fi
        scratch="$(mktemp -d)"
        if "$bin" "${limits[@]}" -timeout=25 -max_total_time="$seconds" -print_final_stats=1 "$scratch" \
            "$root/fuzz/corpus/$t" >>"$log" 2>&1; then
            runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)"
            echo "fuzz: $t: ${#repro[@]} reproducers pass, $runs runs in ${seconds} s, no fault"
        else
            echo "fuzz: $t: FAULT (log: $log; input in $found)"
            failed=1
        fi
        rm -rf "$scratch"
    done
else
    runs="${1:-1000000}"
    for t in "${targets[@]}"; do
        bin="$build/${t}_fuzz"
        corpus="$build/corpus/$t"
        log="$build/$t.campaign.log"
        mkdir -p "$corpus"
        start="$(date +%s)"
        seeds=("$root/fuzz/corpus/$t")
        [ -d "$root/fuzz/reproducers/$t" ] && seeds+=("$root/fuzz/reproducers/$t")
        if nice -n 19 "$bin" "${limits[@]}" -timeout=120 -runs="$runs" -print_final_stats=1 "$corpus" "${seeds[@]}" \
            >"$log" 2>&1; then
            done_runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)"
            echo "fuzz: $t: $done_runs runs in $(($(date +%s) - start)) s, no crash, hang or out-of-memory;" \
                "corpus $(find "$corpus" -type f | wc -l) inputs"
        else
            echo "fuzz: $t: FAULT after $(($(date +%s) - start)) s (log: $log; input in $found)"
            failed=1
        fi
    done
fi
exit "$failed"

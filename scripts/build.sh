#!/usr/bin/env bash
# build.sh DIR [cmake args...]: configures and builds Kalvex in DIR.
# KVX_TARGET="name ..." builds those targets only (default: all).
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
dir="$1"; shift
jobs="$(nproc 2>/dev/null || echo 2)"
cmake -S "$root" -B "$dir" "$@" >/dev/null
if [ -n "${KVX_TARGET:-}" ]; then
    # shellcheck disable=SC2086  # a list of targets
    cmake --build "$dir" -j "$jobs" --target $KVX_TARGET
else
    cmake --build "$dir" -j "$jobs"
fi

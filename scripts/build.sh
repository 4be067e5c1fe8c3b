#!/usr/bin/env bash
# build.sh DIR [cmake args...]: configures (once) and builds Kalvex in DIR.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
dir="$1"; shift
jobs="$(nproc 2>/dev/null || echo 2)"
cmake -S "$root" -B "$dir" "$@" >/dev/null
cmake --build "$dir" -j "$jobs"

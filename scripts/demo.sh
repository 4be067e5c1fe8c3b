#!/usr/bin/env bash
# Builds Kalvex (Release) and runs it on the bundled water job: total density,
# the highest occupied orbital, the electrostatic potential and CHELPG charges.
# Output files go to out/demo/.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh"
KVX_TARGET=kalvex "$root/scripts/build.sh" "$root/build/release" -DCMAKE_BUILD_TYPE=Release

out="$root/out/demo"
mkdir -p "$out"
cp "$root"/examples/water/water.* "$out/"
cd "$out"
echo "== kalvex water: -den -moa 5 -ep -chelp (files in $out)"
KVX_SCRDIR="$out" "$root/build/release/kalvex" water -den -moa 5 -ep -chelp </dev/null
if [ -f water.chelp ]; then
    echo "== water.chelp"
    cat water.chelp
fi

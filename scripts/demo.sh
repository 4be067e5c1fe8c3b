#!/usr/bin/env bash
# Builds Kalvex (Release), imports the bundled psi4 Molden file of water
# (examples/water) into a Kalvex job and runs Kalvex on it: total density,
# the highest occupied orbital, the electrostatic potential and CHELPG
# charges; then the orbital as a cube file and an SVG picture of the potential
# in the plane y = -0.6 bohr, near all three atoms. Output files go to out/demo/.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
"$root/scripts/setup.sh"
KVX_TARGET="kalvex kalvex-import kalvex-cube kalvex-slice" "$root/scripts/build.sh" "$root/build/release" -DCMAKE_BUILD_TYPE=Release
bin="$root/build/release"

out="$root/out/demo"
mkdir -p "$out"
echo "== kalvex-import examples/water/water.molden $out/water"
"$bin/kalvex-import" "$root/examples/water/water.molden" "$out/water"
cd "$out"
echo "== kalvex water: -den -moa 5 -ep -chelp (files in $out)"
KVX_SCRDIR="$out" "$bin/kalvex" water -den -moa 5 -ep -chelp </dev/null
if [ -f water.chelp ]; then
    echo "== water.chelp"
    cat water.chelp
fi
echo "== kalvex-cube and kalvex-slice: orbital 5 as a cube file, the potential in the plane y = -0.6"
"$bin/kalvex-cube" water "$(ls -t -- *-moa-5.grid | head -n 1)"
"$bin/kalvex-slice" water "$(ls -t -- *-ep.grid | head -n 1)" --plane y=-0.6

#!/usr/bin/env bash
# Builds Kalvex (Release) and installs its tools (cmake --install: into
# ~/.local/bin, or PREFIX/bin with KVX_PREFIX=PREFIX), imports the bundled
# psi4 Molden file of water (examples/water) into a Kalvex job and runs
# Kalvex on it: total density, the highest occupied orbital, the
# electrostatic potential and CHELPG charges; then the orbital as a cube file
# and an SVG picture of the potential in the plane y = -0.6 bohr, near all
# three atoms. Output files go to out/demo/. It ends by saying where the
# tools are and how to put them on the PATH.
#
#   demo.sh               build, install, run
#   demo.sh --no-build    run with the tools already on the PATH
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
if [ "${1:-}" = "--no-build" ]; then
    kalvex_path="$(command -v kalvex)" || {
        echo "demo: no kalvex on the PATH" >&2
        exit 1
    }
    bin="$(dirname "$kalvex_path")"
else
    "$root/scripts/setup.sh"
    KVX_TARGET=tools "$root/scripts/build.sh" "$root/build/release" -DCMAKE_BUILD_TYPE=Release
    if [ -n "${KVX_PREFIX:-}" ]; then
        cmake --install "$root/build/release" --prefix "$KVX_PREFIX" >/dev/null
        prefix="$KVX_PREFIX"
    else
        cmake --install "$root/build/release" >/dev/null
        prefix="$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$root/build/release/CMakeCache.txt")"
    fi
    bin="$(cd "$prefix/bin" && pwd)"
fi
user_path="$PATH"
export PATH="$bin:$PATH"

out="$root/out/demo"
mkdir -p "$out"
cd "$out"
echo "== kalvex-import examples/water/water.molden water (in $out)"
kalvex-import "$root/examples/water/water.molden" water
echo "== kalvex water -den -moa 5 -ep -chelp"
kalvex water -den -moa 5 -ep -chelp </dev/null
if [ -f water.chelp ]; then
    echo "== water.chelp"
    cat water.chelp
fi
echo "== kalvex-cube and kalvex-slice: orbital 5 as a cube file, the potential in the plane y = -0.6"
kalvex-cube water "$(ls -t -- *-moa-5.grid | head -n 1)"
kalvex-slice water "$(ls -t -- *-ep.grid | head -n 1)" --plane y=-0.6

echo "== The tools are in $bin:"
for tool in "$bin"/kalvex*; do echo "   $(basename "$tool")"; done
case ":$user_path:" in
    *":$bin:"*) echo "   and that folder is on your PATH." ;;
    *) echo "   Put them on your PATH (the README's commands need it): export PATH=\"$bin:\$PATH\"" ;;
esac
echo "   The job and its files are in $out: cd $out"

#!/usr/bin/env bash
# install_test.sh BUILD_DIR: `cmake --install` into a temporary prefix puts
# the tools, and only executables, into PREFIX/bin, and each one runs from
# there with nothing of the build on the PATH. A fresh configuration without
# a prefix chooses $HOME/.local.
set -euo pipefail
build="$(cd "$1" && pwd)"
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
tmp="$(mktemp -d "${TMPDIR:-/tmp}/kvx_install.XXXXXX")"
trap 'rm -rf "$tmp"' EXIT
fail() {
    echo "install_rule: $*" >&2
    exit 1
}

cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
for tool in kalvex kalvex-import kalvex-info kalvex-cube kalvex-slice; do
    [ -x "$tmp/prefix/bin/$tool" ] || fail "$tool not installed in PREFIX/bin"
done
while IFS= read -r f; do
    case "$f" in
        "$tmp/prefix/bin/kalvex"*) [ -x "$f" ] || fail "$f is not executable" ;;
        *) fail "installed outside PREFIX/bin/kalvex*: $f" ;;
    esac
done < <(find "$tmp/prefix" -type f)

# The tools from the prefix alone, on the bundled water job.
export PATH="$tmp/prefix/bin:/usr/bin:/bin"
mkdir "$tmp/run"
cd "$tmp/run"
for ext in control coord basis mos; do cp "$root/tests/data/water/water.$ext" .; done
[ "$(command -v kalvex)" = "$tmp/prefix/bin/kalvex" ] || fail "kalvex found at $(command -v kalvex)"
kalvex water -xp 4 -yp 5 -zp 6 -base t -den </dev/null | grep -qx "Property file: ./t-den.grid" ||
    fail "kalvex did not write t-den.grid"
kalvex-info water | grep -q "^Orbitals (-moa N): 19, with energies$" || fail "kalvex-info"
kalvex-cube water t-den.grid | grep -qx "Cube file: t-den.cube" || fail "kalvex-cube"
kalvex-slice water t-den.grid --plane z=0 | grep -q "^Slice picture: t-den-z0.svg" || fail "kalvex-slice"
kalvex-import "$root/tests/data/psi4/water_cart.fchk" imported | grep -q "^  HOMO 5, LUMO 6$" || fail "kalvex-import"
for tool in kalvex-import kalvex-info kalvex-cube kalvex-slice; do
    [ "$("$tool" --version)" = "$tool (Kalvex version 1.2-18-win)" ] || fail "$tool --version"
done
[ "$(kalvex --version 2>&1 >/dev/null)" = "kalvex (Kalvex version 1.2-18-win)" ] || fail "kalvex --version"

# Without a prefix of its own a configuration installs into $HOME/.local.
HOME="$tmp/home" PATH="/usr/local/bin:/usr/bin:/bin" \
    cmake -S "$root" -B "$tmp/configured" -DKVX_TESTS=OFF -DKVX_BENCH=OFF >/dev/null
prefix="$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$tmp/configured/CMakeCache.txt")"
[ "$prefix" = "$tmp/home/.local" ] || fail "default prefix $prefix, expected $tmp/home/.local"
echo "install_rule: the tools run from PREFIX/bin; default prefix \$HOME/.local"

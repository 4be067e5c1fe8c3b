#!/usr/bin/env bash
# readme_test.sh BUILD_DIR: the README read as a newcomer reads it. The tools
# are installed into ~/.local of a temporary home (as the demo installs
# them), and every ```sh block of the README runs as written, in order, in
# one shell, in a copy of the top folder: the Quick start first (the demo,
# export PATH, cd out/demo), then each example. The one line not run as
# written is the demo's: it runs without building (the tools are installed
# already); the test command's is left out (it is this test's caller).
# Any failing command, or anything on standard error, fails.
set -euo pipefail
build="$(cd "$1" && pwd)"
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
tmp="$(mktemp -d "${TMPDIR:-/tmp}/kvx_readme.XXXXXX")"
trap 'rm -rf "$tmp"' EXIT

export HOME="$tmp/home"
cmake --install "$build" --prefix "$HOME/.local" >/dev/null
mkdir "$tmp/kalvex"
cp -r "$root/scripts" "$root/examples" "$tmp/kalvex/"

# The sh blocks, each line as written but the demo's.
awk '/^```sh$/ { inside = 1; next } /^```/ { inside = 0; next } inside' "$root/README.md" |
    sed -E -e 's|^bash scripts/demo\.sh( .*)?$|PATH="$HOME/.local/bin:$PATH" bash scripts/demo.sh --no-build|' \
        -e '/^bash scripts\/test\.sh/d' >"$tmp/readme.sh"
grep -q -- '--no-build' "$tmp/readme.sh" || {
    echo "readme_commands: no 'bash scripts/demo.sh' line in the README's Quick start" >&2
    exit 1
}

cd "$tmp/kalvex"
status=0
PATH="/usr/local/bin:/usr/bin:/bin" bash -e -o pipefail -x "$tmp/readme.sh" >"$tmp/out.txt" 2>"$tmp/err.txt" || status=$?
# bash -x traces each command on standard error with a "+ " prefix; the
# charge tools' progress lines go there too.
grep -v -E '^\+|^Computing Electrostatic Potential:$|^ [0-9]+%$|^ DONE$' "$tmp/err.txt" >"$tmp/said.txt" || true
if [ "$status" -ne 0 ] || [ -s "$tmp/said.txt" ]; then
    echo "readme_commands: a README command failed (status $status) or wrote to standard error:" >&2
    tail -n 20 "$tmp/err.txt" >&2
    exit 1
fi
echo "readme_commands: $(grep -c '^+ ' "$tmp/err.txt") commands of the README ran as written"

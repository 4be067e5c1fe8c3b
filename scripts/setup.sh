#!/usr/bin/env bash
# Installs the build and test tools Kalvex needs, when they are missing.
# As root on Debian it uses apt-get; when everything is present it does nothing.
# --tests adds what only the tests use: python3 (reads the slice pictures back)
# and openbabel (reads the cube files back; without it that one test is skipped).
set -euo pipefail

PACKAGES=(g++ cmake make libgtest-dev liblapack-dev libblas-dev)
OPTIONAL=()
if [ "${1:-}" = "--tests" ]; then
    PACKAGES+=(python3)
    OPTIONAL+=(openbabel)
fi
absent() {
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || echo "$p"
    done
}
missing=($(absent "${PACKAGES[@]}"))
extras=($(absent "${OPTIONAL[@]}"))

if [ ${#missing[@]} -eq 0 ] && [ ${#extras[@]} -eq 0 ]; then
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    [ ${#extras[@]} -eq 0 ] || echo "setup: not installed: ${extras[*]}; the tests that need it are skipped" >&2
    [ ${#missing[@]} -eq 0 ] && exit 0
    echo "setup: missing packages: ${missing[*]}" >&2
    echo "setup: run as root (or: sudo apt-get install --no-install-recommends ${missing[*]})" >&2
    exit 1
fi

echo "setup: installing ${missing[*]} ${extras[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
[ ${#missing[@]} -eq 0 ] || apt-get install -y -qq --no-install-recommends "${missing[@]}"
[ ${#extras[@]} -eq 0 ] || apt-get install -y -qq --no-install-recommends "${extras[@]}" ||
    echo "setup: could not install ${extras[*]}; the tests that need it are skipped" >&2

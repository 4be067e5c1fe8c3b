#!/usr/bin/env bash
# Installs the build and test tools Kalvex needs, when they are missing.
# As root on Debian it uses apt-get; when everything is present it does nothing.
set -euo pipefail

PACKAGES=(g++ cmake make libgtest-dev liblapack-dev libblas-dev)
missing=()
for p in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$p")
    fi
done

if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages: ${missing[*]}" >&2
    echo "setup: run as root (or: sudo apt-get install ${missing[*]})" >&2
    exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq "${missing[@]}"

#!/usr/bin/env bash
# Installs the Debian packages the build needs, when some are missing.
set -euo pipefail
packages=(cmake ninja-build g++ libboost-dev libgtest-dev libbenchmark-dev binutils)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages: ${missing[*]} (run as root, or install them with apt-get)" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq "${missing[@]}"
fi

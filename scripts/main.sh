#!/usr/bin/env bash
# Builds the library and runs the main job: the modelling example.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release >/dev/null
ninja -C build
./build/examples/modelling
echo
./build/examples/solving

#!/usr/bin/env bash
# Configures and builds Kestrion into build/ (or the folder given as $1) after setting up the
# machine. Extra arguments go to CMake.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
dir="${1:-build}"
shift || true
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
cmake --build "$dir" -j"$(nproc)"

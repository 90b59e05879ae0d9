#!/usr/bin/env bash
# The main job: builds Kestrion and lists the tool catalogue it loads.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh build
build/bin/kestrion tools

#!/usr/bin/env bash
# The main job: builds Kestrion and renders the example flow (examples/grade.json), which loads
# the sample clip in examples/media, grades it and saves the frames to examples/out.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/build.sh build
build/bin/kestrion render examples/grade.json
echo "Rendered frames: $(pwd)/examples/out/grade.0001.png .. grade.0008.png"

#!/usr/bin/env bash
# Installs the Debian packages that building and testing Kestrion needs. Safe to run again.
# With --bench it adds OpenCV, which only the comparison benchmark uses.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libtbb-dev nlohmann-json3-dev libcli11-dev libopenimageio-dev libcairo2-dev
  libgtest-dev libbenchmark-dev zlib1g-dev
)
[ "${1:-}" = "--bench" ] && packages+=(libopencv-dev)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"

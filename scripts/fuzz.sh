#!/usr/bin/env bash
# Builds the fuzz targets into build-fuzz/ (clang, libFuzzer, AddressSanitizer and UBSan) and
# runs one for SECONDS on its corpus:
#
#   scripts/fuzz.sh TARGET SECONDS [libFuzzer options...]
#   scripts/fuzz.sh --build          (only builds them)
#
# TARGET is document (.kfl), text_flow (.json), clip_definitions (Clips.def) or frame (PNG,
# TIFF and OpenEXR files read through the clip layer). The seeds in fuzz/corpus/TARGET are read
# only; what the run learns goes to build-fuzz/corpus/TARGET, and a crash, leak, hang or
# allocation above 2 GiB to build-fuzz/findings/TARGET/ (exit status non-zero). Minimise a
# finding with the fuzz target's -minimize_crash=1 and keep it as a test case in tests/.
set -euo pipefail
cd "$(dirname "$0")/.."
targets=(document text_flow clip_definitions frame)
build() {
  bash scripts/setup.sh --fuzz
  if [ ! -f build-fuzz/CMakeCache.txt ]; then
    cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++-14 -DKESTRION_FUZZ=ON \
      -DKESTRION_TESTS=OFF -DKESTRION_BENCH=OFF >/dev/null
  fi
  cmake --build build-fuzz -j"$(nproc)" --target fuzz_targets >/dev/null
}
if [ "${1:-}" = "--build" ]; then
  build
  exit 0
fi
if [ $# -lt 2 ] || [[ ! " ${targets[*]} " =~ " $1 " ]] || [[ ! "$2" =~ ^[0-9]+$ ]]; then
  echo "usage: scripts/fuzz.sh TARGET SECONDS [libFuzzer options]   (TARGET: ${targets[*]})" >&2
  exit 2
fi
target="$1" seconds="$2"
shift 2

[ "${KESTRION_FUZZ_BUILT:-0}" = "1" ] || build

mkdir -p "build-fuzz/corpus/$target" "build-fuzz/findings/$target"
options=(-max_total_time="$seconds" -timeout=30 -rss_limit_mb=3072 -malloc_limit_mb=2048 -max_len=16384
         -print_final_stats=1 -artifact_prefix="build-fuzz/findings/$target/")
[ -f "fuzz/$target.dict" ] && options+=(-dict="fuzz/$target.dict")
exec "build-fuzz/bin/fuzz_$target" "${options[@]}" "$@" "build-fuzz/corpus/$target" "fuzz/corpus/$target"

#!/usr/bin/env bash
# Builds Kestrion with warnings as errors and runs the whole test suite, the farm test (a local
# Slurm cluster, as root) among it. With KESTRION_SANITIZERS=1 it also runs the suite, less the
# farm test, under AddressSanitizer+UBSan and ThreadSanitizer, and each fuzz target for
# KESTRION_FUZZ_SECONDS (60) on its corpus, two at a time.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs="$(nproc)"

bash scripts/build.sh build -DKESTRION_WERROR=ON
ctest --test-dir build --output-on-failure -j"$jobs"

if [ "${KESTRION_SANITIZERS:-0}" = "1" ]; then
  bash scripts/build.sh build-asan -DKESTRION_WERROR=ON -DKESTRION_ASAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo
  ctest --test-dir build-asan --output-on-failure -j"$jobs"
  bash scripts/build.sh build-tsan -DKESTRION_WERROR=ON -DKESTRION_TSAN=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo
  ctest --test-dir build-tsan --output-on-failure -j"$jobs"
  bash scripts/fuzz.sh --build
  fuzz_failed=0
  for pair in "document text_flow" "clip_definitions frame"; do
    pids=()
    for target in $pair; do
      KESTRION_FUZZ_BUILT=1 bash scripts/fuzz.sh "$target" "${KESTRION_FUZZ_SECONDS:-60}" >"build-fuzz/$target.log" 2>&1 &
      pids+=($!)
    done
    for i in 0 1; do
      target=$(echo "$pair" | cut -d' ' -f$((i + 1)))
      if wait "${pids[$i]}"; then
        echo "fuzz $target: $(grep -a 'DONE' "build-fuzz/$target.log" | tail -1)"
      else
        echo "fuzz $target: a finding (build-fuzz/findings/$target/)"
        tail -40 "build-fuzz/$target.log"
        fuzz_failed=1
      fi
    done
  done
  [ "$fuzz_failed" = "0" ]
fi

#!/usr/bin/env bash
# Builds Kestrion with warnings as errors and runs the whole test suite, the farm test (a local
# Slurm cluster, as root) among it. With KESTRION_SANITIZERS=1 it also runs the suite, less the
# farm test, under AddressSanitizer+UBSan and ThreadSanitizer.
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
fi

#!/usr/bin/env bash
# Installs what is needed, builds, and runs the whole test suite twice:
# once as is, once under AddressSanitizer + UndefinedBehaviorSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQVR_SANITIZE=ON -DQVR_BUILD_BENCHMARKS=OFF
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"

# The fuzz targets (clang, their own build tree): every corpus input
# replayed, then each target fuzzed for QVR_FUZZ_SECONDS (default 60).
bash scripts/fuzz.sh

#!/usr/bin/env bash
# Installs what is needed, builds, and runs the whole test suite: as is,
# under AddressSanitizer + UndefinedBehaviorSanitizer (and qvrcs's threaded
# check under ThreadSanitizer), on arm64 and armhf under emulation, and
# against the reference driver in virtual machines.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)

# Every Android.bp as the platform's formatter writes it (bpfmt -l lists the
# files it would change, and exits 0 all the same).
unformatted=$(find . -path './build*' -prune -o -name '*.bp' -print | xargs bpfmt -l)
if [ -n "$unformatted" ]; then
  echo "bpfmt would reformat: $unformatted (bpfmt -w FILE fixes it)" >&2
  exit 1
fi

cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"

cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DQVR_SANITIZE=ON -DQVR_BUILD_BENCHMARKS=OFF
cmake --build build-asan -j"$jobs"
ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=1 \
  ctest --test-dir build-asan --output-on-failure -j"$jobs"

# qvrcs check on threads under ThreadSanitizer: only the tool's output test
# (and what it links) is built, and only its threaded check runs.
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQVR_SANITIZE_THREAD=ON -DQVR_BUILD_BENCHMARKS=OFF
cmake --build build-tsan -j"$jobs" --target qvrcs_output_test
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  build-tsan/tests/qvrcs_output_test --gtest_filter='*OnThreads*'

# The device architectures: cross builds whose suite runs under qemu, the
# example set's requests compared with this host's, the clang platform-flags
# check (scripts/cross-test.sh).
for arch in arm64 armhf; do
  bash scripts/cross-test.sh "$arch"
done

# The configurator against the reference driver module in virtual machines:
# Debian's x86-64 kernel with the host build, its arm64 kernel with the arm64
# and armhf builds just made (scripts/kernel-test.sh).
for arch in x86_64 arm64; do
  bash scripts/kernel-test.sh "$arch"
done

# The fuzz targets (clang, their own build tree): every corpus input
# replayed, then each target fuzzed for QVR_FUZZ_SECONDS (30 here; longer
# runs: scripts/fuzz.sh alone, 60 by default).
QVR_FUZZ_SECONDS=${QVR_FUZZ_SECONDS:-30} bash scripts/fuzz.sh

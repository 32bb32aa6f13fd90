#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in their own tree, replays every
# input of each target's corpus (fuzz/corpus/<target>/), then fuzzes each
# target for a bounded time. New inputs go to a scratch directory, never
# into the repository; a crash stops the script and leaves its input in
# <build>/fuzz-artifacts/.
#
#   QVR_FUZZ_SECONDS  seconds of fuzzing per target (default 60; 0 = replay only)
#   QVR_FUZZ_TARGETS  which targets (default "tuning_file config settings")
#   QVR_FUZZ_BUILD    build directory (default build-fuzz)
#   QVR_FUZZ_KEEP     directory to keep each target's new inputs in (default: discarded)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

seconds=${QVR_FUZZ_SECONDS:-60}
read -r -a targets <<< "${QVR_FUZZ_TARGETS:-tuning_file config settings}"
build=${QVR_FUZZ_BUILD:-build-fuzz}
jobs=$(nproc)

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQVR_BUILD_FUZZERS=ON -DQVR_BUILD_TESTS=OFF -DQVR_BUILD_BENCHMARKS=OFF
cmake --build "$build" -j"$jobs" --target "${targets[@]/%/_fuzzer}"

artifacts="$root/$build/fuzz-artifacts"
mkdir -p "$artifacts"
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# The configurator logs every step to standard error; while fuzzing that is
# noise, and slow. libFuzzer keeps its own and the sanitizers' reports.
export ASAN_OPTIONS="${ASAN_OPTIONS:-}:detect_leaks=1:allocator_may_return_null=1"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-}:print_stacktrace=1"

for target in "${targets[@]}"; do
  exe="$build/fuzz/${target}_fuzzer"
  corpus="fuzz/corpus/$target"
  options=(-close_fd_mask=2 -rss_limit_mb=2048 -timeout=25 -artifact_prefix="$artifacts/${target}-")
  if [ -f "fuzz/$target.dict" ]; then options+=(-dict="fuzz/$target.dict"); fi

  echo "== $target: replaying $(find "$corpus" -type f | wc -l) corpus inputs"
  find "$corpus" -type f -print0 | sort -z | xargs -0 --no-run-if-empty "$exe" "${options[@]}"

  if [ "$seconds" -gt 0 ]; then
    echo "== $target: fuzzing for $seconds s"
    work="$scratch/$target"
    mkdir -p "$work"
    "$exe" "${options[@]}" -max_total_time="$seconds" -print_final_stats=1 "$work" "$corpus"
    if [ -n "${QVR_FUZZ_KEEP:-}" ]; then
      mkdir -p "$QVR_FUZZ_KEEP/$target"
      cp -r "$work/." "$QVR_FUZZ_KEEP/$target/"
    fi
  fi
done
echo "fuzzing: no crash in ${targets[*]}"

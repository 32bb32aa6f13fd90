#!/usr/bin/env bash
# Batch check benchmark: `qvrcs check` over 1,000 generated six-slot sets in
# one run against bare_parse over the same 6,000 files in one run (goal:
# check -j 1 at most 1.3 times the bare parse's CPU time), and the wall-time
# speed-up of -j 2 on threads (goal: at least 1.8 on two idle cores). Medians
# of interleaved runs; `uptime` before and after says how idle the machine was.
#
#   QVR_BENCH_BUILD  build directory (default build)
#   QVR_BATCH_SETS   number of sets (default 1000)
#   arguments go to Google Benchmark; without any, five repetitions of each
#   run, interleaved at random
set -euo pipefail
cd "$(dirname "$0")/.."
build=${QVR_BENCH_BUILD:-build}

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target batch_check_bench

if [ $# -eq 0 ]; then
  set -- --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true
fi
uptime
"$build/bench/batch_check_bench" "$@"
uptime

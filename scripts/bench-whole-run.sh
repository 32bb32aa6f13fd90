#!/usr/bin/env bash
# Whole-run benchmark: qvr_configurator on six maximum-size tuning files
# under the simulated driver, side by side with bare_parse (the same files
# read and parsed, nothing else). Prints each program's own CPU time, wall
# time and peak RSS, and the CPU ratio against the goals (<= 1.2, <= 8 MB).
# Also qvr_configurator_inproc, the configurator with the driver answered in
# its own process (no simulator transport), against bare_run (configurator.cfg
# and the six files parsed, the log lines written) on maximum-size and on
# minimal files: goals CPU <= 1.00 x on maximum-size files (1.05 x on minimal
# ones) and peak RSS <= +512 kB.
# Only the in-process pair: --benchmark_filter='InProcess|BareRun'.
#
#   QVR_BENCH_BUILD  build directory (default build)
#   arguments go to Google Benchmark; without any, ten repetitions of each
#   program, interleaved at random so that a busy spell of the machine does
#   not fall on one side only
set -euo pipefail
cd "$(dirname "$0")/.."
build=${QVR_BENCH_BUILD:-build}

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" -j"$(nproc)" --target whole_run_bench korva-driver-sim

if [ $# -eq 0 ]; then
  set -- --benchmark_repetitions=10 --benchmark_enable_random_interleaving=true \
    --benchmark_report_aggregates_only=true
fi
exec "$build/tools/korva-driver-sim/korva-driver-sim" -- "$build/bench/whole_run_bench" "$@"

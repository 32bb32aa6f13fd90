#!/usr/bin/env bash
# Builds everything and loads the example tuning set into the simulated
# driver, then prints what the driver holds (one line per cache block).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

# Where the build puts the example tuning set (examples/CMakeLists.txt).
example_dir="$root/build/examples/tuning"

bash scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build -j"$(nproc)"

exec build/tools/korva-driver-sim/korva-driver-sim --summary -- \
  build/configurator/qvr_configurator "$example_dir"

#!/usr/bin/env bash
# Installs what is missing, builds the library and runs its main job.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQV_BUILD_TESTS=OFF -DQV_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" >/dev/null
"$build/examples/qv_quickstart"

#!/usr/bin/env bash
# Installs what is missing, builds everything from nothing and runs the whole test suite.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQV_BUILD_TESTS=ON -DQV_BUILD_BENCHMARKS=ON -DQV_BUILD_TOOLS=ON \
  -DQV_BUILD_PYTHON=ON
cmake --build "$build" -j "$(nproc)"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"

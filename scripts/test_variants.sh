#!/usr/bin/env bash
# The builds beside the main one: the forced-scalar build runs the kernel and
# accuracy tests with the scalar kernels in the library, and the arm64 build runs the
# whole test suite under qemu-user (scripts/test_arm64.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${BUILD_DIR:-build}-scalar
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQV_FORCE_SCALAR=ON -DQV_BUILD_BENCHMARKS=OFF \
  -DQV_BUILD_TOOLS=OFF -DQV_BUILD_TESTS=ON
cmake --build "$build" -j "$(nproc)" --target depth_kernels_test colour_kernels_test \
  registration_kernels_test targets_test depth_accuracy_test depth_test
ctest --test-dir "$build" --output-on-failure -j "$(nproc)" -R 'Kernels|Targets|DepthAccuracy|Pipeline'
bash scripts/test_arm64.sh

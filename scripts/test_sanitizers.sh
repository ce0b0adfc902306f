#!/usr/bin/env bash
# The whole test suite under AddressSanitizer and UndefinedBehaviorSanitizer (float
# casts included), then the concurrency test under ThreadSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
jobs=$(nproc)

asan=${BUILD_DIR:-build}-asan
cmake -S . -B "$asan" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="-O1 -g" \
  -DQV_SANITIZE="address,undefined,float-cast-overflow" -DQV_BUILD_BENCHMARKS=OFF
cmake --build "$asan" -j "$jobs"
# The packaging checks build an unsanitized consumer and read symbols: not meaningful here;
# viewer_page_browser drives the page against the tests' mock server in Node (no code of
# ours in C++: the release build runs it, and viewer_page_real_server runs the page here).
# (tests/lsan.supp: glibc's own allocation that setlocale keeps when LOCPATH is set.)
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 QV_SOAK_FRAMES=2000 \
  LSAN_OPTIONS=suppressions=$PWD/tests/lsan.supp \
  ctest --test-dir "$asan" --output-on-failure -j "$jobs" -E 'install_and_consume|exported_symbols|viewer_page_browser'

tsan=${BUILD_DIR:-build}-tsan
cmake -S . -B "$tsan" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="-O1 -g" -DQV_SANITIZE=thread \
  -DQV_BUILD_BENCHMARKS=OFF -DQV_BUILD_TOOLS=OFF
cmake --build "$tsan" -j "$jobs" --target concurrency_test
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 "$tsan/tests/concurrency_test"

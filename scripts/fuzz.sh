#!/usr/bin/env bash
# Builds the libFuzzer harnesses with clang and runs each for FUZZ_SECONDS (60) on a
# seed corpus made by the simulator. A finding stops the run with the input saved.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
if ! command -v clang++ >/dev/null || ! ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1; then
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends clang libclang-rt-dev >/dev/null
fi
build=${BUILD_DIR:-build}-fuzz
seconds=${FUZZ_SECONDS:-60}
CXX=clang++ CC=clang cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="-O1 -g" \
  -DQV_SANITIZE="address,undefined" -DQV_BUILD_FUZZERS=ON -DQV_BUILD_TESTS=OFF \
  -DQV_BUILD_BENCHMARKS=OFF -DQV_BUILD_TOOLS=OFF
cmake --build "$build" -j "$(nproc)" --target fuzz_frames fuzz_toolkit fuzz_calibration_file fuzz_make_seeds \
  fuzz_recording fuzz_make_recording_seeds
corpus="$build/corpus"
mkdir -p "$corpus/frames" "$corpus/calibration" "$corpus/toolkit" "$corpus/recording" "$build/findings"
"$build/fuzz/fuzz_make_seeds" "$corpus"
"$build/fuzz/fuzz_make_recording_seeds" "$corpus/recording"
# Earlier findings stay in the corpus (tests/data/recording, replayed by recording_regressions_test).
cp tests/data/recording/*.mcap "$corpus/recording/" 2>/dev/null || true
# The harnesses are single-threaded: run as many at once as there are cores, each
# for the full time, and print each one's summary when it ends.
harness() { if [ "$1" = calibration ]; then echo fuzz_calibration_file; else echo "fuzz_$1"; fi; }
run_one() {
  local target=$1 name
  name=$(harness "$target")
  "$build/fuzz/$name" "$corpus/$target" -max_total_time="$seconds" -timeout=10 -seed="${FUZZ_SEED:-1}" -rss_limit_mb=4096 \
    -artifact_prefix="$build/findings/$name-" -print_final_stats=1 >"$build/$name.log" 2>&1 || true
  { echo "== $name for ${seconds} s"
    grep -E "^(#[0-9]+.*DONE|stat::number_of_executed_units|stat::average_exec_per_sec|==.*ERROR|SUMMARY)" "$build/$name.log" || true
  } >"$build/$name.summary"
}
cores=$(nproc)
running=0
for target in frames toolkit calibration recording; do
  if [ "$running" -ge "$cores" ]; then wait -n; running=$((running - 1)); fi
  run_one "$target" &
  running=$((running + 1))
done
wait
failed=0
for target in frames toolkit calibration recording; do
  name=$(harness "$target")
  cat "$build/$name.summary"
  if ls "$build/findings/$name-"* >/dev/null 2>&1; then
    echo "!! $name found an input that fails: $(ls "$build/findings/$name-"*)"; failed=1
  fi
done
exit "$failed"

#!/usr/bin/env bash
# Executed ARM64 instructions per frame of each operation: qv_frame_ops, cross-built
# for arm64 (scripts/test_arm64.sh's build), run twice under the instruction counter
# of shared/tools/arm64-insns with N1 = 1 and N2 = 5 calls; (count(N2) - count(N1)) / (N2 - N1).
# Deterministic (qv_frame_ops keeps OpenCV on its one thread): the same build gives the
# same counts on any host, however busy.
#
#   scripts/arm64_bench.sh [OP...]      (default: every operation)
# (The viewer's encode_* operations need the tool, which the arm64 build has.)
set -euo pipefail
cd "$(dirname "$0")/.."
counter=${ARM64_INSNS:-$(realpath -m ../shared/tools/arm64-insns/arm64-insns)}
[ -x "$counter" ] || { echo "arm64_bench: no instruction counter at $counter (set ARM64_INSNS)" >&2; exit 2; }
bash scripts/arm64_tools.sh
sysroot=$(bash scripts/arm64_sysroot.sh)
build=${BUILD_DIR:-build}-arm64
# Configured every time (quick once configured): a configure that failed earlier, say
# before the cross compiler was there, leaves a cache behind that cannot build.
cmake -S . -B "$build" -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake -DQV_ARM64_SYSROOT="$sysroot" \
  -DCMAKE_BUILD_TYPE=Release -DQV_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j "$(nproc)" --target qv_frame_ops >/dev/null
libs="$sysroot/usr/lib/aarch64-linux-gnu"
env_path="LD_LIBRARY_PATH=$PWD/$build/lib:$libs/blas:$libs/lapack"
n1=${N1:-1}
n2=${N2:-5}
ops=("$@")
[ ${#ops[@]} -gt 0 ] || ops=(dual dual_nofilter binned single edge ir cloud colour register record encode_light encode_half
  encode_full encode_page)
count() {
  "$counter" -L "$sysroot" -E "$env_path" "$build/bench/qv_frame_ops" "$1" "$2" 2>&1 >/dev/null |
    awk '/^instructions / { n = $2 } END { print n }'
}
printf '%-16s %16s\n' operation "instructions/frame"
for op in "${ops[@]}"; do
  a=$(count "$op" "$n1")
  b=$(count "$op" "$n2")
  [ -n "$a" ] && [ -n "$b" ] || { echo "arm64_bench: $op did not run" >&2; exit 1; }
  awk -v op="$op" -v a="$a" -v b="$b" -v n1="$n1" -v n2="$n2" \
    'BEGIN { printf "%-16s %14.2f M\n", op, (b - a) / (n2 - n1) / 1e6 }'
done

#!/usr/bin/env bash
# Cross-compiles the depth kernels, the medians, the infrared image, the point cloud and the
# false colours (fast and scalar) for ARM64 with Debian's cross compiler and runs their parity
# program under qemu-user.
set -euo pipefail
cd "$(dirname "$0")/.."
need=()
command -v aarch64-linux-gnu-g++ >/dev/null || need+=(g++-aarch64-linux-gnu)
command -v qemu-aarch64 >/dev/null || need+=(qemu-user)
if [ ${#need[@]} -gt 0 ]; then
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
out=${BUILD_DIR:-build}/arm64
mkdir -p "$out"
flags=(-std=c++17 -O3 -Wall -Wextra -ffp-contract=off -fno-trapping-math -Iinclude -Isrc)
aarch64-linux-gnu-g++ "${flags[@]}" -DQV_KERNEL_NS=baseline -ffp-contract=fast -c src/depth/fast/depth_fast.cpp -o "$out/depth_fast.o"
aarch64-linux-gnu-g++ "${flags[@]}" -DQV_KERNEL_NS=baseline -c src/depth/fast/median3.cpp -o "$out/median3.o"
aarch64-linux-gnu-g++ "${flags[@]}" -DQV_KERNEL_NS=baseline -c src/registration/median5.cpp -o "$out/median5.o"
aarch64-linux-gnu-g++ "${flags[@]}" -DQV_KERNEL_NS=baseline -c src/registration/project_row.cpp -o "$out/project_row.o"
aarch64-linux-gnu-g++ "${flags[@]}" -DQV_KERNEL_NS=baseline -c src/depth/fast/point_cloud_span.cpp -o "$out/point_cloud_span.o"
aarch64-linux-gnu-g++ "${flags[@]}" -DQV_KERNEL_NS=baseline -c src/colour/false_colour_span.cpp -o "$out/false_colour_span.o"
aarch64-linux-gnu-g++ "${flags[@]}" -DQV_KERNEL_NS=baseline -c src/depth/fast/ir_rows.cpp -o "$out/ir_rows.o"
aarch64-linux-gnu-g++ "${flags[@]}" -static -o "$out/kernel_parity" tests/arm64/kernel_parity_main.cpp \
  "$out/depth_fast.o" "$out/median3.o" "$out/median5.o" "$out/project_row.o" "$out/point_cloud_span.o" "$out/false_colour_span.o" "$out/ir_rows.o" \
  src/depth/fast/depth_fast_dispatch.cpp src/depth/point_cloud.cpp src/colour/false_colour.cpp src/depth/ir.cpp src/depth/single_freq.cpp \
  src/depth/dual_freq.cpp src/depth/edge_filter.cpp
file "$out/kernel_parity" | sed 's/,.*//'
qemu-aarch64 "$out/kernel_parity"

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
kernels=(src/depth/dual_freq_kernel.cpp src/depth/single_freq_kernel.cpp src/depth/edge_filter_kernel.cpp
         src/depth/median3_kernel.cpp src/depth/ir_kernel.cpp src/depth/point_cloud_kernel.cpp
         src/colour/false_colour_kernel.cpp src/registration/median5_kernel.cpp
         src/registration/project_row_kernel.cpp)
objects=()
for k in "${kernels[@]}"; do
  o="$out/$(basename "$k" .cpp).o"
  extra=()
  case "$k" in *dual_freq_kernel.cpp|*single_freq_kernel.cpp) extra=(-ffp-contract=fast) ;; esac
  aarch64-linux-gnu-g++ "${flags[@]}" -DQV_KERNEL_NS=baseline "${extra[@]}" -c "$k" -o "$o"
  objects+=("$o")
done
aarch64-linux-gnu-g++ "${flags[@]}" -static -o "$out/kernel_parity" tests/arm64/kernel_parity_main.cpp \
  "${objects[@]}" src/simd/targets.cpp src/depth/amplitude.cpp src/depth/point_cloud.cpp \
  src/colour/false_colour.cpp src/depth/ir.cpp src/depth/single_freq.cpp src/depth/dual_freq.cpp \
  src/depth/edge_filter.cpp src/registration/registration_kernels.cpp
file "$out/kernel_parity" | sed 's/,.*//'
qemu-aarch64 "$out/kernel_parity"

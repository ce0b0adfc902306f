#!/usr/bin/env bash
# Installs the host tools that building and running for arm64 need, only those missing:
# Debian's cross compiler and qemu-user (the tests and the instruction counter run the
# arm64 programs under qemu-aarch64). The arm64 libraries come from
# scripts/arm64_sysroot.sh, without touching the host's packages.
set -euo pipefail
need=()
command -v aarch64-linux-gnu-g++ >/dev/null || need+=(g++-aarch64-linux-gnu)
command -v qemu-aarch64 >/dev/null || need+=(qemu-user)
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}" >&2
  sudo=""; [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi

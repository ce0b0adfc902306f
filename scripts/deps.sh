#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only those missing.
# (locales: the definitions from which the calibration test compiles a comma-decimal
# locale into its temporary folder; no locale is generated system-wide.)
set -euo pipefail
packages=(g++ cmake make pkg-config libopencv-dev libgtest-dev libbenchmark-dev libcli11-dev libyaml-cpp-dev libhwy-dev faketime
  pybind11-dev python3-dev python3-numpy python3-pytest python3-open3d python3-meshio python3-distributed python3-yaml
  locales zlib1g-dev liblz4-dev libzstd-dev libboost-dev nlohmann-json3-dev)
# The viewer's page is tested in Debian's Chromium, headless.
packages+=(chromium)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

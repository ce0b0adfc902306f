#!/usr/bin/env bash
# Makes an arm64 sysroot from Debian's arm64 packages without touching the host's: the
# packages the library, the tool and the tests need are downloaded (not installed) and
# unpacked into a folder. Prints the folder. Reuses it while the package list is the same.
#
#   scripts/arm64_sysroot.sh [FOLDER]    (default: build/arm64-sysroot)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(realpath -m "${1:-${BUILD_DIR:-build}/arm64-sysroot}")
# Architecture-specific packages, then architecture-independent headers the build needs.
# (libopencv-dev brings OpenCV's CMake package, and with it every module: 280 MB in all.)
packages=(libopencv-dev:arm64 libgtest-dev:arm64 libyaml-cpp-dev:arm64 libhwy-dev:arm64 libstdc++6:arm64
  zlib1g-dev:arm64 liblz4-dev:arm64 libzstd-dev:arm64)
headers=(libcli11-dev)
stamp="$root/.packages"
want="${packages[*]} ${headers[*]}"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$want" ]; then
  echo "$root"
  exit 0
fi
sudo=""; [ "$(id -u)" -eq 0 ] || sudo="sudo"
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  $sudo dpkg --add-architecture arm64
fi
$sudo apt-get update -qq >&2
debs=$(mktemp -d)
chmod 755 "$debs"  # apt downloads as its own user
trap 'rm -rf "$debs"' EXIT
# Download only: the resolver lists every arm64 package the set needs, down to libc.
$sudo apt-get install -y -d -qq -o Dir::Cache::archives="$debs" "${packages[@]}" >&2
(cd "$debs" && apt-get download -qq "${headers[@]}" 2>/dev/null >&2)
rm -rf "$root"
mkdir -p "$root"
# (The resolver may also list amd64 packages it would change on the host: left out.)
for deb in "$debs"/*_arm64.deb "$debs"/*_all.deb; do
  dpkg-deb -x "$deb" "$root"
done
# Absolute symbolic links inside the sysroot point at the host's files; make them
# point inside it.
find "$root" -type l -lname '/*' | while read -r link; do
  target=$(readlink "$link")
  ln -sfn "$root$target" "$link"
done
echo "$want" > "$stamp"
echo "$root"

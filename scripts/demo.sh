#!/usr/bin/env bash
# Installs what is missing, builds the library and its tool, and runs the main job:
# a simulated scene through the whole pipeline, pictures into qvrecon-demo/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQV_BUILD_TOOLS=ON >/dev/null
cmake --build "$build" -j "$(nproc)" --target qvrecon >/dev/null
"$build/bin/qvrecon" demo --out "${DEMO_OUT:-qvrecon-demo}"

#!/usr/bin/env bash
# Installs the built library into a temporary prefix, then builds and runs a small
# consumer against the installed package twice: through find_package and through
# pkg-config. Nothing of the build tree is visible to the consumer.
set -euo pipefail
build_dir="$1"; consumer_src="$2"; cmake_bin="$3"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$cmake_bin" --install "$build_dir" --prefix "$work/prefix" > "$work/install.log"

"$cmake_bin" -S "$consumer_src" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$work/prefix" \
  -DCMAKE_BUILD_TYPE=Release > "$work/configure.log"
"$cmake_bin" --build "$work/consumer" > "$work/build.log"
sample=$(find "$work/prefix" -path '*/share/qvreconstruction/sample_calibration.yaml' | head -n1)
[ -n "$sample" ] || { echo "the sample calibration is not installed" >&2; exit 1; }
cp "$sample" "$work/sample.yaml"
"$work/consumer/consumer" "$work/sample.yaml"

pc_dir=$(dirname "$(find "$work/prefix" -name qvreconstruction.pc | head -n1)")
flags=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --cflags --libs qvreconstruction-calibration qvreconstruction-recording)
libdir=$(PKG_CONFIG_PATH="$pc_dir" pkg-config --variable=libdir qvreconstruction)
c++ -std=c++17 "$consumer_src/main.cpp" $flags -o "$work/consumer_pc"
LD_LIBRARY_PATH="$libdir" "$work/consumer_pc" "$work/sample.yaml"

# The Python package, where the build made it, imports from the installed prefix.
python_dir=$(find "$work/prefix" -type d -path '*/python3/dist-packages' | head -n1)
if [ -n "$python_dir" ] && [ -d "$python_dir/qvreconstruction" ]; then
  PYTHONPATH="$python_dir" /usr/bin/python3 -c \
    'import qvreconstruction as qv; b, f = qv.load_calibration("'"$sample"'"); print("python package reports", qv.Reconstruction().version)'
fi

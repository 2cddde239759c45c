#!/usr/bin/env bash
# Installs the build tree into a fresh prefix, then builds and runs a small C
# program against it, once through find_package and once through pkg-config.
set -euo pipefail
build_dir=$1 work=$2 consumer=$3
rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build_dir" --prefix "$prefix" >/dev/null

cmake -S "$consumer" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
LD_LIBRARY_PATH="$prefix/lib:$prefix/lib64:${LD_LIBRARY_PATH:-}" "$work/cmake/consumer"

pcdir=$(dirname "$(find "$prefix" -name tarn.pc | head -n 1)")
flags=$(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs tarn)
static_libs=""
if [ -f "$(dirname "$pcdir")/libtarn.a" ]; then
  static_libs=$(PKG_CONFIG_PATH="$pcdir" pkg-config --static --libs tarn)
fi
cc -std=c99 -o "$work/pkgconfig_consumer" "$consumer/main.c" $flags $static_libs
LD_LIBRARY_PATH="$prefix/lib:$prefix/lib64:${LD_LIBRARY_PATH:-}" "$work/pkgconfig_consumer"
echo "installed package works with find_package and pkg-config"

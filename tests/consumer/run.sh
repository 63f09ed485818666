#!/usr/bin/env bash
# Builds examples/sbp_minimal.c against an installed libzelcdbsdk, once through its CMake package and once
# through pkg-config, and runs each build (the program is its own peer).
#   tests/consumer/run.sh PREFIX     PREFIX: what `cmake --install --prefix` was given, or the
#                                    usr folder of .debs unpacked with dpkg-deb -x
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
program=$here/../../examples/sbp_minimal.c
prefix=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The program must name protocol values, never spell them.
if grep -nE '0[xX][0-9a-fA-F]+' "$program"; then
  echo "sbp_minimal.c spells a protocol value instead of using the header's name" >&2
  exit 1
fi

echo "--- find_package(zelcdbsdk) from $prefix"
cmake -S "$here" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DCMAKE_FIND_USE_SYSTEM_PACKAGE_REGISTRY=OFF >/dev/null
cmake --build "$work/cmake" --target run_consumer

echo "--- pkg-config zelcdbsdk from $prefix"
pcdir=$(dirname "$(find "$prefix" -name zelcdbsdk.pc -print -quit)")
export PKG_CONFIG_LIBDIR="$pcdir" PKG_CONFIG_PATH=""
version=$(pkg-config --modversion zelcdbsdk)
# shellcheck disable=SC2046
cc -std=c99 -Wall -Wextra -Werror -pthread -o "$work/consumer" "$program" \
  $(pkg-config --cflags --libs zelcdbsdk)
LD_LIBRARY_PATH=$(pkg-config --variable=libdir zelcdbsdk) "$work/consumer" "$version"

#!/usr/bin/env bash
# Builds and runs the benchmarks (installing what they need when it is missing):
#  1. the SBP codec against msgpack-c;
#  2. the end-to-end figures of the SDK next to raw TCP and ZeroMQ (when libzmq is there)
#     measured in the same run, in interleaved rounds (round trips, payload stream, idle
#     cost, 256 endpoint pairs, footprint, heap allocations per message), printed as a table
#     and as JSON, which is also written to build/bench/e2e.json.
#
#   tools/bench.sh                      everything
#   tools/bench.sh --quick              a short smoke run of the end-to-end part only
#   tools/bench.sh [options]            --benchmark_* options go to the codec benchmark,
#                                       the others to e2e_bench (see bench/e2e/main.cpp)
#
# The 32-bit ARM library is cross-built in build/bench-arm32 (the library target only) so
# that its stripped size can be reported; without the cross compiler that row is left out.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh bench
quick=0
codec=()
e2e=()
for arg in "$@"; do
  case "$arg" in
    --benchmark_*) codec+=("$arg") ;;
    --quick) quick=1; e2e+=("$arg") ;;
    *) e2e+=("$arg") ;;
  esac
done

cmake --preset bench >/dev/null
cmake --build --preset bench --target codec_bench e2e_bench zelcdbsdk

stripped=build/bench/stripped
mkdir -p "$stripped"
strip --strip-all -o "$stripped/libzelcdbsdk.so.1.x86_64" build/bench/libzelcdbsdk.so.1
sizes=(--so="x86_64=$stripped/libzelcdbsdk.so.1.x86_64")
if command -v arm-linux-gnueabihf-g++ >/dev/null; then
  cmake --preset arm32 -B build/bench-arm32 -DZEL_BUILD_TESTS=OFF -DZEL_BUILD_EXAMPLES=OFF \
    -DZEL_BUILD_ZELCDB=OFF >/dev/null
  cmake --build build/bench-arm32 --target zelcdbsdk
  arm-linux-gnueabihf-strip --strip-all -o "$stripped/libzelcdbsdk.so.1.arm32" \
    build/bench-arm32/libzelcdbsdk.so.1
  sizes+=(--so="arm32=$stripped/libzelcdbsdk.so.1.arm32")
else
  echo "no 32-bit ARM cross compiler (tools/install-deps.sh arm): ARM size left out" >&2
fi

if [ $quick -eq 0 ]; then
  build/bench/bench/codec_bench ${codec[@]+"${codec[@]}"}
  echo
fi
build/bench/bench/e2e_bench "${sizes[@]}" --json=build/bench/e2e.json ${e2e[@]+"${e2e[@]}"}

#!/usr/bin/env bash
# Builds and runs the codec benchmark against msgpack-c (installed when missing).
#   tools/bench.sh [benchmark options, e.g. --benchmark_min_time=2]
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh bench
cmake --preset bench >/dev/null
cmake --build --preset bench --target codec_bench
build/bench/bench/codec_bench "$@"

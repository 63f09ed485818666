#!/usr/bin/env bash
# Builds the library and runs the demo: a server and a client endpoint of one process talking
# SBP over loopback, the library loaded with dlopen as a customer's application may.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh build
cmake --preset release >/dev/null
cmake --build --preset release --target zelcdbsdk_demo zelcdbsdk
build/release/examples/zelcdbsdk_demo "$PWD/build/release/libzelcdbsdk.so.1"

#!/usr/bin/env bash
# Builds everything with the native release preset and runs the whole test suite.
#   tools/test.sh [preset]     (release by default; also asan, tsan, arm32)
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}
if [ "$preset" = arm32 ]; then tools/install-deps.sh arm; else tools/install-deps.sh build; fi
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
ctest --preset "$preset"

#!/usr/bin/env bash
# Installs what the builds need on a fresh Debian machine, only when it is missing.
#   tools/install-deps.sh            native builds and tests
#   tools/install-deps.sh arm        plus the 32-bit ARM cross compiler and qemu-user
#   tools/install-deps.sh bench      plus msgpack-c for the comparison benchmark
set -euo pipefail
need=()
have() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
want() { for p in "$@"; do have "$p" || need+=("$p"); done; }
want cmake ninja-build g++ clang clang-format libgtest-dev libgmock-dev googletest libbenchmark-dev libclang-rt-14-dev
# zelcdb's argument parser and JSON: header-only, so the same packages serve the ARM build.
want libcli11-dev nlohmann-json3-dev
# zelcdb's end-to-end test driver.
want python3
for extra in "$@"; do
  case "$extra" in
    arm) want g++-arm-linux-gnueabihf qemu-user ;;
    bench) want libmsgpack-dev ;;
    *) echo "unknown option $extra" >&2; exit 2 ;;
  esac
done
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $sudo_cmd apt-get update -qq || true
  $sudo_cmd apt-get install -y -qq --no-install-recommends "${need[@]}"
fi

#!/usr/bin/env bash
# Installs, with apt-get, what the named jobs need and the machine lacks; nothing else.
#   tools/install-deps.sh [JOB...]      (build when no job is named)
#     build     the library, its tests, the examples and zelcdb (GCC, CMake, Ninja, GoogleTest)
#     arm       build, plus the 32-bit ARM cross compiler, qemu-user and GoogleTest's sources
#     bench     the benchmarks: Google Benchmark, msgpack-c, and ZeroMQ for the peer rows
#     fuzz      the libFuzzer build: clang and its runtime
#     format    clang-format alone
#     docs      build, plus doxygen for the API reference
#     package   build, plus what the Debian packages and their checks need
#     consumer  build, plus pkg-config for the consumer test
#     wireshark tshark, for the dissector's tests on captured sessions
# Each need is checked by what it provides (a command, a header), so a machine that has the
# tools from elsewhere installs nothing, and one without apt-get is fine as long as nothing
# is missing. ZEL_NO_INSTALL=1 skips everything.
set -euo pipefail
[ "${ZEL_NO_INSTALL:-0}" = 1 ] && exit 0

# package: what shows that it is present (a command, or a file under an include folder;
# a pattern may hold a glob).
declare -A probe=(
  [cmake]=cmd:cmake [ninja-build]=cmd:ninja [g++]=cmd:g++ [python3]=cmd:python3
  [libgtest-dev]=inc:gtest/gtest.h [libgmock-dev]=inc:gmock/gmock.h
  [libcli11-dev]=inc:CLI/CLI.hpp [nlohmann-json3-dev]=inc:nlohmann/json.hpp
  [googletest]=file:/usr/src/googletest/CMakeLists.txt
  [g++-arm-linux-gnueabihf]=cmd:arm-linux-gnueabihf-g++ [qemu-user]=cmd:qemu-arm
  [libbenchmark-dev]=inc:benchmark/benchmark.h [libmsgpack-dev]=inc:msgpack.h
  [libzmq3-dev]=inc:zmq.h
  [clang]=cmd:clang [libclang-rt-14-dev]=file:/usr/lib/llvm-14/lib/clang/14*/lib/linux/libclang_rt.fuzzer-*.a
  [clang-format]=cmd:clang-format [git]=cmd:git [doxygen]=cmd:doxygen [lintian]=cmd:lintian
  [dpkg-dev]=cmd:dpkg-shlibdeps [file]=cmd:file [pkg-config]=cmd:pkg-config
  [tshark]=cmd:tshark
)
build=(cmake ninja-build g++ python3 libgtest-dev libgmock-dev libcli11-dev nlohmann-json3-dev)

present() {
  local kind=${1%%:*} what=${1#*:} dir
  case $kind in
    cmd) command -v "$what" >/dev/null ;;
    file) compgen -G "$what" >/dev/null ;;
    inc) for dir in /usr/include /usr/local/include; do [ -e "$dir/$what" ] && return 0; done
         return 1 ;;
  esac
}

wanted=()
[ $# -eq 0 ] && set -- build
for job in "$@"; do
  case "$job" in
    build) wanted+=("${build[@]}") ;;
    arm) wanted+=("${build[@]}" g++-arm-linux-gnueabihf qemu-user googletest) ;;
    bench) wanted+=(cmake ninja-build g++ libbenchmark-dev libmsgpack-dev libzmq3-dev) ;;
    fuzz) wanted+=(cmake ninja-build clang libclang-rt-14-dev) ;;
    format) wanted+=(clang-format git) ;;
    docs) wanted+=("${build[@]}" doxygen) ;;
    package) wanted+=("${build[@]}" doxygen lintian dpkg-dev file pkg-config) ;;
    consumer) wanted+=("${build[@]}" pkg-config) ;;
    wireshark) wanted+=(tshark) ;;
    *) echo "install-deps: unknown job '$job' (build arm bench fuzz format docs package consumer wireshark)" >&2
       exit 2 ;;
  esac
done

need=()
for package in $(printf '%s\n' "${wanted[@]}" | sort -u); do
  present "${probe[$package]}" || need+=("$package")
done
[ ${#need[@]} -eq 0 ] && exit 0

if ! command -v apt-get >/dev/null; then
  echo "install-deps: missing ${need[*]}, and no apt-get to install them with" >&2
  exit 1
fi
echo "installing: ${need[*]}"
sudo_cmd=""
[ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
export DEBIAN_FRONTEND=noninteractive
# tshark asks whether non-root users may capture; answer no beforehand so the install never
# stops at a prompt (the tests read files, they capture nothing live as non-root).
if [[ " ${need[*]} " == *" tshark "* ]]; then
  echo "wireshark-common wireshark-common/install-setuid boolean false" |
    $sudo_cmd debconf-set-selections
fi
$sudo_cmd apt-get update -qq || true
$sudo_cmd apt-get install -y -qq --no-install-recommends "${need[@]}"

#!/usr/bin/env bash
# Builds the Debian packages of one preset into build/<preset>/packages and checks them:
# lintian must report no error, and (native build) the consumer test builds and runs against
# the packages unpacked into a temporary root.
#   tools/package.sh           amd64 (release preset)
#   tools/package.sh arm32     armhf (arm32 preset)
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:-release}
jobs=(package)
[ "$preset" = arm32 ] && jobs+=(arm)
tools/install-deps.sh "${jobs[@]}"
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target zelcdbsdk zelcdb zelcdb_man zel_deb_doc docs
out=build/$preset/packages
rm -rf "$out"
(cd "build/$preset" && cpack -G DEB)
lintian --fail-on error "$out"/*.deb
echo "lintian: no error in $(cd "$out" && echo *.deb)"
if [ "$preset" != arm32 ]; then
  root=$(mktemp -d)
  trap 'rm -rf "$root"' EXIT
  for deb in "$out"/*.deb; do dpkg-deb -x "$deb" "$root"; done
  tests/consumer/run.sh "$root/usr"
fi

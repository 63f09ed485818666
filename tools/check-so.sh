#!/usr/bin/env bash
# Checks a built libzelcdbsdk.so.1: exports ZELCDBSDKInitialize only, needs only libc, libm
# and the dynamic loader, and carries its SONAME.
#   tools/check-so.sh build/release/libzelcdbsdk.so.1 [readelf] [nm]
set -euo pipefail
so=$1
readelf=${2:-readelf}
nm=${3:-nm}
fail=0
exported=$($nm -D --defined-only "$so" | awk '{print $NF}' | sort)
if [ "$exported" != "ZELCDBSDKInitialize" ]; then
  echo "unexpected exported symbols in $so:"; echo "$exported"; fail=1
fi
needed=$($readelf -d "$so" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
for lib in $needed; do
  case "$lib" in
    libc.so.*|libm.so.*|ld-linux*.so.*) ;;
    *) echo "unexpected NEEDED entry in $so: $lib"; fail=1 ;;
  esac
done
soname=$($readelf -d "$so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
if [ "$soname" != "libzelcdbsdk.so.1" ]; then echo "SONAME is '$soname'"; fail=1; fi
[ $fail -eq 0 ] && echo "$so: exports, NEEDED and SONAME ok"
exit $fail

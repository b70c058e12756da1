#!/usr/bin/env bash
# Installs a build tree into a scratch prefix and builds and runs a program against it (consume.sh).
#   check_install.sh <cmake> <c++ compiler> <build dir> <consumer source dir>
set -euo pipefail
cmake=$1 cxx=$2 build=$3 consumer=$4

work=$(mktemp -d "${TMPDIR:-/tmp}/kv3000-install.XXXXXX")
trap '[ $? = 0 ] && rm -rf "$work" || echo "left for inspection: $work" >&2' EXIT
prefix=$work/prefix
fail() { echo "FAIL: $*" >&2; exit 1; }

"$cmake" --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log" >&2; fail "cmake --install"; }

lib=$(find "$prefix" -name 'libkv_3000.so.2.0.0.0' -print -quit)
[ -n "$lib" ] || fail "libkv_3000.so.2.0.0.0 not installed"
libdir=$(dirname "$lib")
[ "$(readlink "$libdir/libkv_3000.so.2")" = libkv_3000.so.2.0.0.0 ] || fail "libkv_3000.so.2 link"
[ "$(readlink "$libdir/libkv_3000.so")" = libkv_3000.so.2 ] || fail "libkv_3000.so link"
readelf -d "$lib" | grep -q 'SONAME.*\[libkv_3000\.so\.2\]' || fail "soname is not libkv_3000.so.2"
headers=$(ls "$prefix/include/kv3000" 2>&1 | tr '\n' ' ' || true)
[ "$headers" = "kv3000_intf.h kv3000_records.h " ] || fail "include/kv3000 holds $headers, not the two public headers"
for tool in tools/kv3000-host tools/sim/kv3000-sim; do
    [ ! -x "$build/$tool" ] || [ -x "$prefix/bin/${tool##*/}" ] || fail "${tool##*/} built but not installed"
done
[ -f "$libdir/wireshark/plugins/kv3000.lua" ] || fail "Wireshark dissector not installed beside the library"

bash "$(dirname "$0")/consume.sh" "$cmake" "$cxx" "$prefix" "$libdir/pkgconfig" "$consumer" || fail "consumer"

echo "install OK: $(basename "$lib") in ${libdir#"$prefix"/}, headers, CMake package and pkg-config file"

#!/usr/bin/env bash
# Installs a build tree into a scratch prefix, checks what is there and builds and runs consumer/ against it
# through find_package(kv3000) and pkg-config; with --consume, only the latter, against a given prefix.
#   check_install.sh <cmake> <c++ compiler> <build dir> <consumer source dir>
#   check_install.sh --consume <cmake> <c++ compiler> <prefix> <pkg-config dir> <consumer source dir>
set -euo pipefail
work=$(mktemp -d "${TMPDIR:-/tmp}/kv3000-install.XXXXXX")
trap '[ $? = 0 ] && rm -rf "$work" || echo "left for inspection: $work" >&2' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
log() { cat "$work/log" >&2; fail "$@"; }

consume() {
    local cmake=$1 cxx=$2 prefix=$3 consumer=$5
    export PKG_CONFIG_PATH=$4${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}
    LD_LIBRARY_PATH=$(pkg-config --variable=libdir kv3000)${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH} ||
        fail "no kv3000.pc in $4"
    export LD_LIBRARY_PATH
    echo "== find_package(kv3000 CONFIG)"
    "$cmake" -S "$consumer" -B "$work/by-cmake" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_BUILD_TYPE=Release >"$work/log" 2>&1 || log "consumer configure"
    "$cmake" --build "$work/by-cmake" >>"$work/log" 2>&1 || log "consumer build"
    "$work/by-cmake/consumer" || fail "consumer built with CMake"
    echo "== pkg-config kv3000"
    [ "$(pkg-config --modversion kv3000)" = 2.0.0.0 ] || fail "pkg-config version"
    # -fPIC: Qt 5 Core's headers want position-independent code.
    # shellcheck disable=SC2046 # the flags are meant to split
    "$cxx" -std=c++17 -fPIC -o "$work/by-pkgconfig" "$consumer/main.cpp" $(pkg-config --cflags --libs kv3000) ||
        fail "consumer build with pkg-config"
    "$work/by-pkgconfig" || fail "consumer built with pkg-config"
}
if [ "$1" = --consume ]; then
    consume "${@:2}"
    exit
fi

cmake=$1 cxx=$2 build=$3 consumer=$4
prefix=$work/prefix
"$cmake" --install "$build" --prefix "$prefix" >"$work/log" || log "cmake --install"
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
consume "$cmake" "$cxx" "$prefix" "$libdir/pkgconfig" "$consumer"
echo "install OK: $(basename "$lib") in ${libdir#"$prefix"/}, headers, CMake package and pkg-config file"

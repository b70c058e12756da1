#!/usr/bin/env bash
# Installs a build tree into a scratch prefix and builds and runs a small
# program against the installed driver, once through find_package(kv3000
# CONFIG) and once through pkg-config.
#   check_install.sh <cmake> <c++ compiler> <build dir> <consumer source dir>
set -euo pipefail
cmake=$1 cxx=$2 build=$3 consumer=$4

work=$(mktemp -d "${TMPDIR:-/tmp}/kv3000-install.XXXXXX")
cleanup() {
    if [ "$1" -eq 0 ]; then rm -rf "$work"; else echo "left for inspection: $work" >&2; fi
}
trap 'cleanup $?' EXIT
prefix=$work/prefix
fail() { echo "FAIL: $*" >&2; exit 1; }

"$cmake" --install "$build" --prefix "$prefix" >"$work/install.log" || { cat "$work/install.log" >&2; fail "cmake --install"; }

lib=$(find "$prefix" -name 'libkv_3000.so.2.0.0.0' -print -quit)
[ -n "$lib" ] || fail "libkv_3000.so.2.0.0.0 not installed"
libdir=$(dirname "$lib")
[ "$(readlink "$libdir/libkv_3000.so.2")" = libkv_3000.so.2.0.0.0 ] || fail "libkv_3000.so.2 link"
[ "$(readlink "$libdir/libkv_3000.so")" = libkv_3000.so.2 ] || fail "libkv_3000.so link"
readelf -d "$lib" | grep -q 'SONAME.*\[libkv_3000\.so\.2\]' || fail "soname is not libkv_3000.so.2"
for h in kv3000_intf.h kv3000_records.h; do
    [ -f "$prefix/include/kv3000/$h" ] || fail "include/kv3000/$h not installed"
done
for h in "$prefix"/include/kv3000/*; do
    case ${h##*/} in
    kv3000_intf.h | kv3000_records.h) ;;
    *) fail "internal header installed: ${h##*/}" ;;
    esac
done
for tool in kv3000-host kv3000-sim; do
    if [ -x "$build/tools/$tool" ] || [ -x "$build/tools/sim/$tool" ]; then
        [ -x "$prefix/bin/$tool" ] || fail "$tool built but not installed"
    fi
done

[ -f "$libdir/wireshark/plugins/kv3000.lua" ] || fail "Wireshark dissector not installed beside the library"

export LD_LIBRARY_PATH=$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}

echo "== find_package(kv3000 CONFIG)"
"$cmake" -S "$consumer" -B "$work/by-cmake" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_BUILD_TYPE=Release >"$work/by-cmake.log" 2>&1 || { cat "$work/by-cmake.log" >&2; fail "consumer configure"; }
"$cmake" --build "$work/by-cmake" >>"$work/by-cmake.log" 2>&1 || { cat "$work/by-cmake.log" >&2; fail "consumer build"; }
"$work/by-cmake/consumer" || fail "consumer built with CMake"

echo "== pkg-config kv3000"
export PKG_CONFIG_PATH=$libdir/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}
[ "$(pkg-config --modversion kv3000)" = 2.0.0.0 ] || fail "pkg-config version"
# shellcheck disable=SC2046 # the flags are meant to split
"$cxx" -std=c++17 -o "$work/by-pkgconfig" "$consumer/main.cpp" $(pkg-config --cflags --libs kv3000) ||
    fail "consumer build with pkg-config"
"$work/by-pkgconfig" || fail "consumer built with pkg-config"

echo "install OK: $(basename "$lib") in ${libdir#"$prefix"/}, headers, CMake package and pkg-config file"

#!/usr/bin/env bash
# Builds and runs consumer/ against an installed driver through find_package(kv3000) and pkg-config.
#   consume.sh <cmake> <c++ compiler> <prefix> <pkg-config dir> <consumer source dir>
set -euo pipefail
cmake=$1 cxx=$2 prefix=$3 pcdir=$4 consumer=$5
work=$(mktemp -d "${TMPDIR:-/tmp}/kv3000-consume.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
log() { cat "$work/log" >&2; fail "$@"; }

export PKG_CONFIG_PATH=$pcdir${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}
libdir=$(pkg-config --variable=libdir kv3000) || fail "no kv3000.pc in $pcdir"
export LD_LIBRARY_PATH=$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}

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

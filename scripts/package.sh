#!/usr/bin/env bash
# Builds the Debian packages libkv3000-2, libkv3000-dev and kv3000-tools from
# this checkout into build-package/ and checks them with lintian (no error).
# Installs only what is missing; a second run rebuilds only what changed.
#   scripts/package.sh               native packages in build-package/
#   scripts/package.sh BUILD_DIR     the packages of a configured build tree
#                                    (scripts/armhf.sh: build-armhf)
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/packages.sh"
cd "$(dirname "$0")/.."
ROOT=$PWD
JOBS=$(nproc 2>/dev/null || echo 2)

install_missing cmake g++ make pkg-config qtbase5-dev libcpp-httplib-dev libpcap-dev \
    txt2man dpkg-dev file lintian

if [ $# -ge 1 ]; then
    BUILD=$(cd "$1" && pwd)
else
    BUILD=$ROOT/build-package
    echo "== configure and build in $BUILD"
    # Debian's hardening flags (dpkg-buildflags), a system prefix, no tests.
    cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
        -DKV_BUILD_TESTS=OFF -DKV_BUILD_BENCH=OFF \
        "-DCMAKE_CXX_FLAGS=$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
        "-DCMAKE_EXE_LINKER_FLAGS=$(dpkg-buildflags --get LDFLAGS)" \
        "-DCMAKE_SHARED_LINKER_FLAGS=$(dpkg-buildflags --get LDFLAGS)" >/dev/null
fi
cmake --build "$BUILD" -j "$JOBS"

echo "== packages"
rm -f "$BUILD"/*.deb
(cd "$BUILD" && cpack --config CPackConfig.cmake) >"$BUILD/cpack.log" 2>&1 || {
    cat "$BUILD/cpack.log" >&2
    echo "package: cpack failed" >&2
    exit 1
}
debs=("$BUILD"/*.deb)
for deb in "${debs[@]}"; do
    echo "${deb#"$ROOT"/}: $(dpkg-deb -f "$deb" Depends)"
done

echo "== lintian"
lintian --tag-display-limit 0 "${debs[@]}" 2>&1 | grep -v '^running with root privileges' | tee "$BUILD/lintian.log" || true
if grep -q '^E: ' "$BUILD/lintian.log"; then
    echo "package: lintian found errors (above)" >&2
    exit 1
fi
echo "== ${#debs[@]} packages in ${BUILD#"$ROOT"/}/, no lintian error"

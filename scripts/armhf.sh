#!/usr/bin/env bash
# Cross-builds the driver, the tools and the unit tests for the ARM panels
# (armhf), runs the tests under qemu-arm and makes the three Debian packages
# for armhf in build-armhf/ (scripts/package.sh). Installs only what is missing.
#
# Only host (amd64) packages are installed: the cross compiler, qemu-user and
# Qt's host tools. The armhf Qt 5 Core and GoogleTest are downloaded with a
# private apt state and unpacked into build-armhf/sysroot, never installed:
# multiarch co-installation would tie every shared library to the exact
# amd64 version and could hold back or break the native Qt.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/packages.sh"
cd "$(dirname "$0")/.."
ROOT=$PWD
BUILD=$ROOT/build-armhf
SYSROOT=$BUILD/sysroot
APTDIR=$BUILD/apt
JOBS=$(nproc 2>/dev/null || echo 2)

HOST_PACKAGES=(cmake make g++-arm-linux-gnueabihf qemu-user qtbase5-dev-tools txt2man dpkg-dev file lintian)
# Unpacked with everything they depend on.
ARMHF_PACKAGES=(libqt5core5a libgtest-dev libgmock-dev libcpp-httplib-dev libpcap-dev)
# Unpacked alone, for Qt Core's headers, CMake files and mkspec; the GUI
# dependencies of qtbase5-dev are not needed.
ARMHF_DEV_ONLY=(qtbase5-dev qt5-qmake)

say() { echo "== $*"; }
die() { echo "armhf: $*" >&2; exit 1; }
inconsistent() {
    echo "armhf: the armhf package archive looks inconsistent (mirror in sync?); try again later" >&2
    exit 3
}


# apt working on its own lists, cache and (empty) package database, for armhf only.
APT=(apt-get -q
     -o APT::Architecture=armhf -o APT::Architectures::=armhf
     -o Dir::State="$APTDIR" -o Dir::State::lists="$APTDIR/lists" -o Dir::State::status="$APTDIR/status"
     -o Dir::Cache="$APTDIR/cache" -o APT::Sandbox::User="$(id -un)")

make_sysroot() {
    mkdir -p "$APTDIR/lists/partial" "$APTDIR/cache/archives/partial"
    touch "$APTDIR/status"
    say "armhf package lists"
    # A list that fails (a mirror in the middle of a sync) leaves the older
    # or missing one in place; resolving below tells whether that still works.
    "${APT[@]}" update >"$APTDIR/update.log" 2>&1 ||
        echo "warning: some armhf package lists could not be fetched (see $APTDIR/update.log); going on with what is there" >&2
    ls "$APTDIR"/lists/*_binary-armhf_Packages* >/dev/null 2>&1 || die "no armhf package list could be fetched (see $APTDIR/update.log)"

    say "armhf packages: ${ARMHF_PACKAGES[*]} (with dependencies), ${ARMHF_DEV_ONLY[*]}"
    local log=$APTDIR/download.log
    "${APT[@]}" clean
    if ! "${APT[@]}" install -y --download-only --no-install-recommends "${ARMHF_PACKAGES[@]}" >"$log" 2>&1; then
        cat "$log" >&2
        grep -qE 'unmet dependencies|held broken packages|Unable to correct problems|Unable to locate package' "$log" &&
            inconsistent
        die "downloading the armhf packages failed"
    fi
    if ! (cd "$APTDIR/cache/archives" && "${APT[@]}" download "${ARMHF_DEV_ONLY[@]}") >>"$log" 2>&1; then
        cat "$log" >&2
        grep -qE 'Unable to locate package|Can.t select' "$log" && inconsistent
        die "downloading ${ARMHF_DEV_ONLY[*]} failed"
    fi

    local debs=("$APTDIR"/cache/archives/*.deb) stamp
    stamp=$(printf '%s\n' "${debs[@]##*/}" | md5sum | cut -d' ' -f1)
    if [ "$(cat "$SYSROOT/.packages" 2>/dev/null)" != "$stamp" ]; then
        say "unpacking ${#debs[@]} packages into $SYSROOT"
        rm -rf "$SYSROOT"
        mkdir -p "$SYSROOT"
        for deb in "${debs[@]}"; do
            dpkg-deb -x "$deb" "$SYSROOT"
        done
        # Qt's CMake files point moc and rcc here; a cross build runs the host's.
        mkdir -p "$SYSROOT/usr/lib/qt5/bin"
        for tool in moc rcc; do
            ln -sfn "/usr/lib/qt5/bin/$tool" "$SYSROOT/usr/lib/qt5/bin/$tool"
        done
        echo "$stamp" >"$SYSROOT/.packages"
    fi
}

# dpkg-shlibdeps for the armhf packages, run by cpack in a package's staging
# directory: the dependency information of the armhf libraries comes from the
# shlibs files of the unpacked armhf packages (debian/shlibs.local), objects
# are read with the cross objdump (DEB_HOST_ARCH), and a library without
# information is an error (cpack would pass --ignore-missing-info).
make_shlibdeps() {
    local dir=$BUILD/shlibdeps deb
    mkdir -p "$dir"
    for deb in "$APTDIR"/cache/archives/*.deb; do
        dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./shlibs 2>/dev/null || true
    done >"$dir/shlibs.local"
    cat >"$dir/dpkg-shlibdeps" <<EOF
#!/bin/sh
mkdir -p debian && cp "$dir/shlibs.local" debian/shlibs.local || exit 1
for a; do shift; [ "\$a" = --ignore-missing-info ] || set -- "\$@" "\$a"; done
DEB_HOST_ARCH=armhf exec /usr/bin/dpkg-shlibdeps "\$@"
EOF
    chmod +x "$dir/dpkg-shlibdeps"
}

install_missing "${HOST_PACKAGES[@]}"
make_sysroot

say "configure and build in $BUILD"
# The panels' Debian keeps libraries (and Wireshark's plugins) in the multiarch
# directory; GNUInstallDirs picks it by itself only for a native build.
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_TOOLCHAIN_FILE="$ROOT/cmake/toolchain-armhf.cmake" \
    -DKV_ARMHF_SYSROOT="$SYSROOT" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf \
    -DKV_BUILD_BENCH=OFF -DKV_BUILD_TOOLS=ON >/dev/null
# Keep going past a target that fails so that the tests that did build still run.
case "${CMAKE_GENERATOR:-}" in
Ninja*) keep_going=(-k 0) ;;
"" | *Makefiles) keep_going=(-k) ;;
*) keep_going=() ;;
esac
build_ok=1
cmake --build "$BUILD" -j "$JOBS" -- "${keep_going[@]}" || build_ok=0

say "unit tests under qemu-arm"
tests_ok=1
ctest --test-dir "$BUILD" -L unit --output-on-failure -j "$JOBS" --timeout 600 || tests_ok=0

[ $build_ok -eq 1 ] || die "the armhf build failed (see above); the tests that were built ran"
[ $tests_ok -eq 1 ] || die "unit tests failed under qemu-arm"

say "Debian packages for armhf"
make_shlibdeps
PATH=$BUILD/shlibdeps:$PATH bash "$ROOT/scripts/package.sh" "$BUILD" || die "the armhf packages failed (see above)"
say "armhf build, unit tests and packages OK: $(cd "$BUILD" && echo *.deb)"

#!/usr/bin/env bash
# One entry point for people and CI:
#   scripts/dev.sh run    install what is missing, build, run the host against the embedded simulator
#   scripts/dev.sh test   install what is missing, build, run the whole test suite
# Both are idempotent: a second run installs nothing and rebuilds only what changed.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/packages.sh"
cd "$(dirname "$0")/.."
ROOT=$PWD
JOBS=$(nproc 2>/dev/null || echo 2)

PACKAGES=(cmake g++ make pkg-config qtbase5-dev libgtest-dev libgmock-dev libbenchmark-dev
          libcpp-httplib-dev chromium chromium-driver python3-selenium curl jq
          clang libclang-rt-14-dev binutils python3 libpcap-dev tshark tcpdump
          libmodbus-dev mbpoll python3-pymodbus python3-serial-asyncio)

# tshark's install asks whether users outside the wireshark group may capture:
# answered "no" beforehand, so that it installs without a question.
preseed_tshark() {
    dpkg -s tshark >/dev/null 2>&1 && return 0
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    echo "wireshark-common wireshark-common/install-setuid boolean false" | $sudo debconf-set-selections
}


configure_build() {  # dir, extra cmake args...
    local dir=$1; shift
    cmake -S "$ROOT" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
    cmake --build "$dir" -j "$JOBS"
}

case "${1:-}" in
run)
    preseed_tshark
    install_missing "${PACKAGES[@]}"
    configure_build build -DKV_BUILD_BENCH=OFF
    shift
    exec "$ROOT/build/tools/kv3000-host" "$@"
    ;;
test)
    preseed_tshark
    install_missing "${PACKAGES[@]}"
    configure_build build
    ctest --test-dir build --output-on-failure -j "$JOBS" --timeout 600
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
    configure_build build-asan -DKV_SANITIZE="address;undefined" -DKV_BUILD_BENCH=OFF
    ctest --test-dir build-asan --output-on-failure -j "$JOBS" --timeout 600 -L 'unit|sim|e2e'
    echo "== ThreadSanitizer"
    configure_build build-tsan -DKV_SANITIZE=thread -DKV_BUILD_BENCH=OFF -DKV_BUILD_TOOLS=ON
    ctest --test-dir build-tsan --output-on-failure -j "$JOBS" --timeout 600 -L 'stress|unit'
    echo "== libFuzzer harnesses, briefly"
    cmake -S "$ROOT" -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
        -DKV_BUILD_FUZZ=ON -DKV_SANITIZE="address;undefined" -DKV_BUILD_BENCH=OFF >/dev/null
    cmake --build build-fuzz -j "$JOBS" --target kv_fuzz
    ctest --test-dir build-fuzz --output-on-failure -j "$JOBS" -L fuzz
    ;;
*)
    echo "usage: scripts/dev.sh run|test" >&2
    exit 2
    ;;
esac

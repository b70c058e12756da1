#!/usr/bin/env bash
# The Debian packages of a build tree: lintian, exact file lists; unpacked, tools, consumer and man pages work.
#   check_package.sh <cpack> <cmake> <c++ compiler> <build dir> <source dir> <install prefix> <multiarch>
set -uo pipefail
cpack=$1 cmake=$2 cxx=$3 build=$4 src=$5 prefix=$6 ma=$7
if [ "$prefix" != /usr ]; then
    echo "skipped: the packages need a build configured with -DCMAKE_INSTALL_PREFIX=/usr"
    exit 77
fi
for tool in lintian dpkg-deb dpkg-parsechangelog man; do
    command -v $tool >/dev/null || { echo "FAIL: $tool is not installed (scripts/dev.sh installs it)" >&2; exit 1; }
done
work=$(mktemp -d "${TMPDIR:-/tmp}/kv3000-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
failed=0
fail() { echo "FAIL: $*" >&2; failed=1; }

"$cpack" --config "$build/CPackConfig.cmake" -B "$work/debs" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log" >&2; echo "FAIL: cpack" >&2; exit 1; }
version=$(dpkg-parsechangelog -l "$src/cmake/debian/changelog" -S Version)

lintian --tag-display-limit 0 "$work"/debs/*.deb >"$work/lintian.log" 2>&1
grep -E '^E: |groff-message' "$work/lintian.log" && fail "lintian"

# Every file, per package (a pattern line may match one file).
declare -A expected=(
    [libkv3000-2]="usr/lib/$ma/libkv_3000.so.2 usr/lib/$ma/libkv_3000.so.2.0.0.0"
    [libkv3000-dev]="usr/include/kv3000/kv3000_intf.h usr/include/kv3000/kv3000_records.h
        usr/lib/$ma/libkv_3000.so usr/lib/$ma/pkgconfig/kv3000.pc usr/lib/$ma/cmake/kv3000/kv3000Config.cmake
        usr/lib/$ma/cmake/kv3000/kv3000ConfigVersion.cmake usr/lib/$ma/cmake/kv3000/kv3000Targets.cmake
        usr/lib/$ma/cmake/kv3000/kv3000Targets-*.cmake usr/share/man/man3/libkv3000.3.gz"
    [kv3000-tools]="usr/bin/kv3000-host usr/bin/kv3000-sim usr/lib/$ma/wireshark/plugins/kv3000.lua
        usr/share/man/man1/kv3000-host.1.gz usr/share/man/man1/kv3000-sim.1.gz"
)
for pkg in "${!expected[@]}"; do
    deb=$work/debs/${pkg}_${version}_$(dpkg --print-architecture).deb
    [ -f "$deb" ] || { fail "no $(basename "$deb")"; continue; }
    mapfile -t has < <(dpkg-deb --fsys-tarfile "$deb" | tar -t | grep -v '/$' | sed 's|^\./||')
    set -f # the names may be patterns: split, not expanded
    # shellcheck disable=SC2206
    want=(${expected[$pkg]} "usr/share/doc/$pkg/copyright" "usr/share/doc/$pkg/changelog.Debian.gz")
    set +f
    declare -A matched=()
    # shellcheck disable=SC2053 # matched as patterns
    for f in "${has[@]}"; do
        m=
        for w in "${want[@]}"; do [[ $f == $w ]] && m=1 && matched[$w]=1; done
        [ -n "$m" ] || fail "$pkg holds an unexpected $f"
    done
    for w in "${want[@]}"; do [ -n "${matched[$w]:-}" ] || fail "$pkg lacks $w"; done
    dpkg-deb -x "$deb" "$work/root"
done
deps=$(dpkg-deb -f "$work/debs/kv3000-tools_${version}_"*.deb Depends)
[[ $deps == *"libkv3000-2 (= $version)"*libqt5core5a* ]] || fail "kv3000-tools Depends: $deps"
deps=$(dpkg-deb -f "$work/debs/libkv3000-2_${version}_"*.deb Depends)
[[ $deps == *libqt5core5a* ]] || fail "libkv3000-2 Depends: $deps"

root=$work/root
echo "== the unpacked tools"
"$root/usr/bin/kv3000-host" info >"$work/info" 2>&1 || fail "kv3000-host info: $(cat "$work/info")"
grep -qx "driver: *$root/usr/bin/../lib/$ma/libkv_3000.so.2" "$work/info" || fail "driver not found beside: $(head -2 "$work/info")"
timeout 30 "$root/usr/bin/kv3000-host" write DM100=7 >"$work/write" 2>&1 || fail "kv3000-host write: $(cat "$work/write")"
"$root/usr/bin/kv3000-sim" --help >/dev/null || fail "kv3000-sim --help"

echo "== the unpacked libkv3000-dev"
# The .pc file names /usr; here the prefix is the scratch root.
mkdir -p "$work/pc"
sed "s|^prefix=.*|prefix=$root/usr|" "$root/usr/lib/$ma/pkgconfig/kv3000.pc" >"$work/pc/kv3000.pc"
bash "$src/tests/install/check_install.sh" --consume "$cmake" "$cxx" "$root/usr" "$work/pc" "$src/tests/install/consumer" ||
    fail "consumer of the unpacked libkv3000-dev"

echo "== man pages"
for page in man1/kv3000-host.1:--replay-check man1/kv3000-sim.1:CONSOLE man3/libkv3000.3:"RETURN VALUE"; do
    MANWIDTH=80 man -l "$root/usr/share/man/${page%%:*}.gz" >"$work/page" 2>"$work/man.err" || fail "man -l ${page%%:*}"
    [ -s "$work/man.err" ] && fail "man -l ${page%%:*}: $(cat "$work/man.err")"
    grep -q -- "${page#*:}" "$work/page" || fail "${page%%:*} lacks ${page#*:}"
    grep -q "^SEE ALSO" "$work/page" || fail "${page%%:*} lacks SEE ALSO"
done
# A term of --help (an option, a command) followed by its deeper-indented
# description must end in two spaces: txt2man then makes it a term of the page.
for tool in kv3000-host kv3000-sim; do
    "$root/usr/bin/$tool" --help | awk -v tool=$tool '
        { ind = match($0, /[^ ]/) }
        /^[A-Z]/ { section = $0 }
        NR > 1 && section != "SYNOPSIS" && pind > 1 && ind > pind && substr(prev, pind) !~ /  / {
            print tool ": a term without two trailing spaces: " prev; bad = 1 }
        { prev = $0; pind = ind }
        END { exit bad }' || failed=1
done

if [ $failed = 0 ]; then
    echo "packages OK: $(cd "$work/debs" && echo *.deb)"
else
    echo "left for inspection: $(cp -r "$work" "$work.kept" && echo "$work.kept")" >&2
fi
exit $failed

# The dissector's own table of area codes against the catalogue: a read of
# every area and a write of every timer/counter value area, written with the
# simulator's replies by kv3000_capture_areas, must decode to the register
# names, addresses, counts and values that kv3000_traits.h gives for them.
source "$(dirname "$0")/lib.sh" "$@"
source "$(dirname "$0")/capture_lib.sh"
"${KV_CAPTURE_AREAS:?the test runs with KV_CAPTURE_AREAS naming kv3000_capture_areas}" "$WORK/areas.pcap" \
    >"$WORK/want.txt" || fail "kv3000_capture_areas failed"
decode "$WORK/areas.pcap" >"$WORK/got.txt"
no_lua_error "$WORK/got.txt"
# The expected lines carry no expert column: every frame must decode cleanly.
sed 's/$/\t/' "$WORK/want.txt" | diff - "$WORK/got.txt" >"$WORK/diff.txt" ||
    fail "the dissector's area table differs from the catalogue:$(printf '\n%s' "$(head -20 "$WORK/diff.txt")")"
[ "$(wc -l <"$WORK/want.txt")" -ge 40 ] || fail "only $(wc -l <"$WORK/want.txt") frames in the reference"
finish

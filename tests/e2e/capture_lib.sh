# Helpers of the capture scripts, sourced after lib.sh: the dissector, tshark,
# and the bytes of a capture's records.
LUA=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../tools/wireshark" && pwd)/kv3000.lua
if ! command -v tshark >/dev/null 2>&1; then
    echo "SKIP: tshark is not installed (scripts/dev.sh installs it), so no capture is decoded"
    exit 77
fi

# decode FILE [TSHARK-OPTION...]: one line per KV-3000 frame (per TCP segment
# in a raw capture), tab-separated: operation, register, address, count,
# items, expert messages. tshark's complaints go to $WORK/tshark.err.
decode() {
    local file=$1
    shift
    tshark -r "$file" -X lua_script:"$LUA" -2 -Y kv3000 "$@" -T fields -E occurrence=a -E aggregator=, \
        -e kv3000.operation -e kv3000.register -e kv3000.address -e kv3000.count -e kv3000.item \
        -e _ws.expert.message 2>"$WORK/tshark.err"
}

# expect_lines FILE LINE...: FILE has each LINE as a whole line.
expect_lines() { expect_grep Fx "$@"; }

# no_lua_error FILE: the dissector raised no Lua error while decoding FILE.
no_lua_error() {
    ! grep -q "Lua Error" "$1" "$WORK/tshark.err" || fail "Lua error decoding $(basename "$1"): $(grep -h "Lua Error" "$1" "$WORK/tshark.err" | head -3)"
}

# record_at FILE N: offset of record N's bytes (its direction byte) in a pcap file.
record_at() {
    local pos=24 i len
    for ((i = 1; i < $2; i++)); do
        len=$(od -An -tu4 -j $((pos + 8)) -N4 "$1" | tr -d ' ')
        pos=$((pos + 16 + len))
    done
    echo $((pos + 16))
}

# record_length FILE N: bytes of record N, its direction byte included.
record_length() {
    od -An -tu4 -j $(($(record_at "$1" "$2") - 8)) -N4 "$1" | tr -d ' '
}

# flip_byte FILE OFFSET: adds 1 to the byte at OFFSET.
flip_byte() {
    local v
    v=$(od -An -tu1 -j "$2" -N1 "$1" | tr -d ' ')
    printf "$(printf '\\%03o' $(((v + 1) % 256)))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}

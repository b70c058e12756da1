# Captures decoded (both links, tcpdump's, every area, damaged files), replayed, checked against; bad files refused.
source "$(dirname "$0")/lib.sh" "$@"
LUA=$(cd "$(dirname "$0")/../../tools/wireshark" && pwd)/kv3000.lua
command -v tshark >/dev/null 2>&1 || { echo "SKIP: tshark is not installed (scripts/dev.sh installs it)"; exit 77; }

# decode FILE [TSHARK-OPTION...]: per frame: operation, register, address, count, items, expert messages.
decode() {
    local file=$1
    shift
    tshark -r "$file" -X lua_script:"$LUA" -2 -Y kv3000 "$@" -T fields -E occurrence=a -E aggregator=, \
        -e kv3000.operation -e kv3000.register -e kv3000.address -e kv3000.count -e kv3000.item \
        -e _ws.expert.message 2>"$WORK/tshark.err"
}
# decoded NAME [TSHARK-OPTION...]: decodes $WORK/NAME.pcap into $WORK/NAME.txt, with no Lua error.
decoded() {
    decode "$WORK/$1.pcap" "${@:2}" >"$WORK/$1.txt"
    ! grep -q "Lua Error" "$WORK/$1.txt" "$WORK/tshark.err" ||
        fail "Lua error decoding $1.pcap: $(grep -h "Lua Error" "$WORK/$1.txt" "$WORK/tshark.err" | head -3)"
}
expect_lines() { expect_grep Fx "$@"; }

# flip_check FILE N: adds 1 to the check byte (the last but one) of record N of a pcap file.
flip_check() {
    local pos=24 i v
    for ((i = 1; i <= $2; i++)); do pos=$((pos + 16 + $(od -An -tu4 -j $((pos + 8)) -N4 "$1"))); done
    v=$(od -An -tu1 -j $((pos - 2)) -N1 "$1")
    printf "$(printf '\\%03o' $(((v + 1) % 256)))" | dd of="$1" bs=1 seek=$((pos - 2)) conv=notrunc status=none
}

# Every area and timer/counter value write (kv3000_capture_areas) decodes as kv3000_traits.h names it.
"${KV_CAPTURE_AREAS:?the test runs with KV_CAPTURE_AREAS naming kv3000_capture_areas}" "$WORK/areas.pcap" \
    >"$WORK/want.txt" || fail "kv3000_capture_areas failed"
decoded areas
sed 's/$/\t/' "$WORK/want.txt" | diff - "$WORK/areas.txt" >"$WORK/diff.txt" ||
    fail "the dissector's area table differs from the catalogue:$(printf '\n%s' "$(head -20 "$WORK/diff.txt")")"
[ "$(wc -l <"$WORK/want.txt")" -ge 40 ] || fail "only $(wc -l <"$WORK/want.txt") frames in the reference"

# tcpdump_start FILE / tcpdump_stop: a raw capture of the simulator's TCP port (as root; TCPDUMP is empty otherwise).
TCPDUMP=
tcpdump_start() {
    [ "$(id -u)" = 0 ] && command -v tcpdump >/dev/null 2>&1 || { echo "not root or no tcpdump: no raw capture"; return 0; }
    # A small snapshot length leaves room for many packets in the kernel's ring.
    tcpdump -i lo -U --immediate-mode -s 16384 -B 16384 -w "$1" "tcp port $SIM_PORT" 2>"$WORK/tcpdump.err" &
    TCPDUMP=$!
    trap 'kill "$TCPDUMP" 2>/dev/null; cleanup' EXIT
    wait_for "$WORK/tcpdump.err" "listening on" 10
}
tcpdump_stop() {
    [ -n "$TCPDUMP" ] || return 0
    sleep 0.2
    kill -INT "$TCPDUMP" && wait "$TCPDUMP"
    RAW_COMPLETE=$(grep -cx "0 packets dropped by kernel" "$WORK/tcpdump.err") ||
        echo "tcpdump dropped packets (a busy machine), so its capture is not compared: $(tr '\n' ' ' <"$WORK/tcpdump.err")"
}
# same_as_raw RAW HOST-CAPTURE...: the raw capture $WORK/RAW.pcap decodes as the host's own.
same_as_raw() {
    [ -n "$TCPDUMP" ] && [ "$RAW_COMPLETE" = 1 ] || return 0
    local raw=$1
    shift
    decoded "$raw" -o kv3000.tcp_port:$SIM_PORT
    for f in "$@"; do decode "$WORK/$f.pcap"; done | diff - "$WORK/$raw.txt" >"$WORK/raw.diff" ||
        fail "$raw.pcap decodes otherwise than the host's capture: $(head -5 "$WORK/raw.diff")"
}

sim_start --listen 127.0.0.1:0 --pty --capture "$WORK/sim.pcap"
tcpdump_start "$WORK/raw.pcap"
expect_exit 0 "$HOST" $T --capture "$WORK/write.pcap" write DM100:3=1,2,3 TC5=100000 R5.03=1 B3FF=1 Z3=70000 \
    MR10=32769 W1F=9 MR_bit11.05=1
expect_exit 0 "$HOST" $T --capture "$WORK/read.pcap" read DM100:3 TC5 R5.03 MR10
tcpdump_stop
# A host killed in the middle of a watch leaves a readable capture.
"$HOST" $T --capture "$WORK/killed.pcap" watch DM100 >"$WORK/watch" 2>&1 &
pid=$!
wait_for "$WORK/watch" "DM100 = 1" 10
{ kill -KILL "$pid" && wait "$pid"; } 2>/dev/null
PTY=(--serial "$SIM_PTY" --serial-params 115200,8,EVEN,1)
expect_exit 0 "$HOST" "${PTY[@]}" --capture "$WORK/pty_write.pcap" write DM200=7 TS9=42
expect_exit 0 "$HOST" "${PTY[@]}" --capture "$WORK/pty_read.pcap" read DM200 TS9
sim_stop

TAB=$'\t'
WRITTEN=("word write${TAB}DM${TAB}100${TAB}3${TAB}DM100=1,DM101=2,DM102=3$TAB" "value write${TAB}TC${TAB}5$TAB${TAB}TC5=100000$TAB"
    "bit set${TAB}R${TAB}5.03$TAB${TAB}R5.03=1$TAB" "bit set${TAB}B${TAB}3FF$TAB${TAB}B3FF=1$TAB" "word write${TAB}Z${TAB}3${TAB}1${TAB}Z3=70000$TAB"
    "word write${TAB}MR${TAB}10${TAB}1${TAB}MR10=32769$TAB" "word write${TAB}W${TAB}1F${TAB}1${TAB}W1F=9$TAB"
    "word write${TAB}MR${TAB}11${TAB}1${TAB}MR11=32$TAB")
READ=("read${TAB}DM${TAB}100${TAB}3${TAB}DM100=1,DM101=2,DM102=3$TAB" "read${TAB}T${TAB}5${TAB}1${TAB}T5=contact 0 current 100000 set 0$TAB"
    "read${TAB}R${TAB}5.00${TAB}2${TAB}R5.00=0x0008,R6.00=0x0000$TAB" "read${TAB}MR${TAB}10${TAB}1${TAB}MR10=32769$TAB")
PTY_LINES=("word write${TAB}DM${TAB}200${TAB}1${TAB}DM200=7$TAB" "value write${TAB}TS${TAB}9$TAB${TAB}TS9=42$TAB"
    "read${TAB}DM${TAB}200${TAB}1${TAB}DM200=7$TAB" "read${TAB}T${TAB}9${TAB}1${TAB}T9=contact 0 current 0 set 42$TAB")
for f in write read pty_write pty_read sim killed; do
    decoded $f
    cut -f6 "$WORK/$f.txt" | grep -q . && fail "$f.pcap: $(cut -f6 "$WORK/$f.txt" | grep . | head -1)"
done
expect_lines "$WORK/write.txt" "${WRITTEN[@]}"
expect_lines "$WORK/read.txt" "${READ[@]}"
cat "$WORK/pty_write.txt" "$WORK/pty_read.txt" >"$WORK/pty.txt"
expect_lines "$WORK/pty.txt" "${PTY_LINES[@]}"
expect_lines "$WORK/sim.txt" "${WRITTEN[@]}" "${READ[@]}" "${PTY_LINES[@]}"
expect_lines "$WORK/killed.txt" "read${TAB}DM${TAB}100${TAB}1${TAB}DM100=1$TAB"
# Every reply is linked to its request with the response time.
unpaired=$(tshark -r "$WORK/read.pcap" -X lua_script:"$LUA" -2 -Y \
    'kv3000.direction == 1 && !(kv3000.request_in && kv3000.response_time)' 2>/dev/null | wc -l)
[ "$unpaired" = 0 ] || fail "$unpaired replies without their request"
same_as_raw raw write read

# A wrong check byte in the reply of the first read: flagged, values still shown.
cp "$WORK/read.pcap" "$WORK/bad_check.pcap"
flip_check "$WORK/bad_check.pcap" "$(tshark -r "$WORK/read.pcap" -X lua_script:"$LUA" \
    -Y 'kv3000.direction == 1 && kv3000.operation == "read"' -T fields -e frame.number 2>/dev/null | head -1)"
decoded bad_check
grep -qE "^read${TAB}DM${TAB}100${TAB}3${TAB}DM100=1,DM101=2,DM102=3${TAB}Wrong check byte: 0x[0-9A-F]{2}, expected 0x" \
    "$WORK/bad_check.txt" || fail "wrong check byte not flagged: $(grep DM100 "$WORK/bad_check.txt")"

# Replies in pieces 20 ms apart: the raw capture has them in several segments.
sim_start --listen 127.0.0.1:0 --faults split=1:20
tcpdump_start "$WORK/split.pcap"
expect_exit 0 "$HOST" $T --capture "$WORK/split_host.pcap" read DM100:3 TC5
tcpdump_stop
same_as_raw split split_host

# Replies cut short (each comes in pieces a second apart, the host waits 0.1 s).
sim_start --listen 127.0.0.1:0 --faults split=1:1000
expect_exit 1 "$HOST" $T --timeout 100 --capture "$WORK/cut_reply.pcap" read DM100
decoded cut_reply
expect_in "$WORK/cut_reply.txt" "Frame cut short"

# A file cut inside its last record: the records before it decode.
head -c $(($(stat -c %s "$WORK/read.pcap") - 5)) "$WORK/read.pcap" >"$WORK/cut_file.pcap"
decoded cut_file
expect_in "$WORK/tshark.err" "cut short in the middle of a packet"
expect_lines "$WORK/cut_file.txt" "${READ[@]:0:3}"

# Wireshark's personal plugin folder is enough: no option needed.
mkdir -p "$WORK/home/.local/lib/wireshark/plugins"
cp "$LUA" "$WORK/home/.local/lib/wireshark/plugins/"
[ "$(HOME=$WORK/home tshark -r "$WORK/read.pcap" -Y 'kv3000.operation == "read"' 2>/dev/null | wc -l)" = 8 ] ||
    fail "the dissector in ~/.local/lib/wireshark/plugins is not used"

# Replay. The original: values set on the simulator's console, faults on a third of the replies.
READS=(read DM100:3 TC5 R5.03 T5 MR10 W1F)
values() { grep -v '^summary: ' "$WORK/out"; }
faults() { grep -o '[0-9]* retries, [0-9]* abandoned, [0-9]* timeouts' "$WORK/out"; }
sim_start --listen 127.0.0.1:0 --faults drop=0.15,corrupt=0.15,garbage=0.1 --seed 5 --capture "$WORK/r_sim.pcap"
for kv in "DM100 1 2 3" "TC5 100000" "R5.03 1" "T5 1" "MR10 32769" "W1F 9"; do sim_set $kv; done
expect_exit 0 "$HOST" $T --timeout 200 --capture "$WORK/r_host.pcap" "${READS[@]}"
values >"$WORK/original"
faults >"$WORK/original.faults"
grep -q '^0 retries' "$WORK/original.faults" && fail "no faults in the original run"

# Played back from either capture by a simulator whose memory is all zeros.
for capture in r_host r_sim; do
    sim_start --listen 127.0.0.1:0 --replay "$WORK/$capture.pcap"
    expect_exit 0 "$HOST" $T --timeout 200 "${READS[@]}"
    values | diff "$WORK/original" - >/dev/null || fail "$capture.pcap replayed: $(values | diff "$WORK/original" -)"
    faults | diff -q "$WORK/original.faults" - >/dev/null ||
        fail "$capture.pcap replayed with other faults: $(grep summary "$WORK/out"), originally $(cat "$WORK/original.faults")"
    # A request it does not hold (and the handshake, used up) comes from memory.
    expect_exit 0 "$HOST" $T read DM500
    expect_in "$WORK/out" "DM500 = 0"
    recorded=$(tshark -r "$WORK/$capture.pcap" -X lua_script:"$LUA" -Y 'kv3000.direction == 0 && kv3000.operation != "acknowledge"' 2>/dev/null | wc -l)
    stats=$(sim_stats | grep '^replay')
    [ "$stats" = "replay replayed $recorded from-memory 3" ] || fail "$capture.pcap: stats say '$stats', $recorded recorded"
done

# The host checks its frames against a capture; the embedded simulator replays it.
expect_exit 0 "$HOST" --timeout 200 --replay-check "$WORK/r_host.pcap" "${READS[@]}"
values | grep -v '^replay-check' | diff -q "$WORK/original" - >/dev/null || fail "--replay-check run read other values"
grep -qE "^replay-check: the ([0-9]+) requests sent match the capture$" "$WORK/out" || fail "$(grep replay-check "$WORK/out")"
expect_exit 1 "$HOST" --timeout 200 --replay-check "$WORK/r_host.pcap" read DM100:3 TC5 R5.03 T5 MR11 W1F
grep -qE "^replay-check: request [0-9]+ differs from record [0-9]+ of the capture: sent .* \(read MR 11 x1\), recorded .* \(read MR 10 x1\)$" \
    "$WORK/out" || fail "changed request not reported: $(grep replay-check "$WORK/out")"
expect_exit 1 "$HOST" --timeout 200 --replay-check "$WORK/r_host.pcap" "${READS[@]}" DM7
expect_in "$WORK/out" "is not in the capture, which ends after" "(read DM 7 x1)"

# Capture files that cannot be written or are not captures: status 2 before anything is done.
echo "not a capture" >"$WORK/junk.pcap"
expect_refusals 2 "$SIM" --listen 127.0.0.1:0 <<EOF2
--replay $WORK/junk.pcap|is not a pcap file
--capture $WORK/no/such/dir.pcap|cannot write capture
EOF2
expect_refusals 2 "$HOST" <<EOF2
--tcp 127.0.0.1:1 --capture $WORK/no/such/dir.pcap write DM1=1|cannot write capture $WORK/no/such/dir.pcap
--replay-check $WORK/missing.pcap read DM0|cannot read capture $WORK/missing.pcap
--capture $WORK/info.pcap info|--capture goes with a command that talks to a controller
EOF2
finish

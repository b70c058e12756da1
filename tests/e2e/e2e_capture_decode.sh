# Captures decoded by the Wireshark dissector down to register names,
# addresses and values: the host's over TCP and over a pseudo-terminal, the
# simulator's of both links, and a tcpdump capture of the TCP link, which
# must decode as the host's own. A wrong check byte, replies cut short, a
# file cut inside a record and one left by a killed host are decoded without
# a Lua error; a capture that cannot be written is refused before anything.
source "$(dirname "$0")/lib.sh" "$@"
source "$(dirname "$0")/capture_lib.sh"

# tcpdump_start FILE / tcpdump_stop: a raw capture of the simulator's TCP port
# (as root; TCPDUMP is empty otherwise).
TCPDUMP=
tcpdump_start() {
    [ "$(id -u)" = 0 ] && command -v tcpdump >/dev/null 2>&1 || return 0
    # A small snapshot length leaves room for many packets in the kernel's ring.
    tcpdump -i lo -U --immediate-mode -s 16384 -B 16384 -w "$1" "tcp port $SIM_PORT" 2>"$WORK/tcpdump.err" &
    TCPDUMP=$!
    trap 'kill "$TCPDUMP" 2>/dev/null; cleanup' EXIT
    wait_for "$WORK/tcpdump.err" "listening on" 10
}
tcpdump_stop() {
    [ -n "$TCPDUMP" ] || return 0
    sleep 0.2
    kill -INT "$TCPDUMP"
    wait "$TCPDUMP"
    RAW_COMPLETE=1
    if ! grep -qx "0 packets dropped by kernel" "$WORK/tcpdump.err"; then
        echo "tcpdump dropped packets (a busy machine), so its capture is not compared: $(tr '\n' ' ' <"$WORK/tcpdump.err")"
        RAW_COMPLETE=
    fi
}
# same_as_raw RAW HOST-CAPTURE...: the raw capture decodes as the host's own.
same_as_raw() {
    [ -n "$TCPDUMP" ] && [ -n "$RAW_COMPLETE" ] || return 0
    local raw=$1
    shift
    decode "$raw" -o kv3000.tcp_port:$SIM_PORT >"$WORK/raw.txt"
    no_lua_error "$WORK/raw.txt"
    for f in "$@"; do decode "$f"; done | diff - "$WORK/raw.txt" >"$WORK/raw.diff" ||
        fail "$(basename "$raw") decodes otherwise than the host's capture: $(head -5 "$WORK/raw.diff")"
}

sim_start --listen 127.0.0.1:0 --pty --capture "$WORK/sim.pcap"
tcpdump_start "$WORK/raw.pcap"
[ -n "$TCPDUMP" ] || echo "not root or no tcpdump: raw TCP captures are left out"
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
    decode "$WORK/$f.pcap" >"$WORK/$f.txt"
    no_lua_error "$WORK/$f.txt"
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
same_as_raw "$WORK/raw.pcap" "$WORK/write.pcap" "$WORK/read.pcap"

# A wrong check byte in the reply of the first read: flagged, values still shown.
cp "$WORK/read.pcap" "$WORK/bad_check.pcap"
n=$(tshark -r "$WORK/read.pcap" -X lua_script:"$LUA" -Y 'kv3000.direction == 1 && kv3000.operation == "read"' \
    -T fields -e frame.number 2>/dev/null | head -1)
flip_byte "$WORK/bad_check.pcap" $(($(record_at "$WORK/bad_check.pcap" "$n") + $(record_length "$WORK/bad_check.pcap" "$n") - 2))
decode "$WORK/bad_check.pcap" >"$WORK/bad_check.txt"
no_lua_error "$WORK/bad_check.txt"
grep -qE "^read${TAB}DM${TAB}100${TAB}3${TAB}DM100=1,DM101=2,DM102=3${TAB}Wrong check byte: 0x[0-9A-F]{2}, expected 0x" \
    "$WORK/bad_check.txt" || fail "wrong check byte not flagged: $(grep DM100 "$WORK/bad_check.txt")"

# Replies in pieces 20 ms apart: the raw capture has them in several segments.
sim_start --listen 127.0.0.1:0 --faults split=1:20
tcpdump_start "$WORK/split.pcap"
expect_exit 0 "$HOST" --tcp 127.0.0.1:$SIM_PORT --capture "$WORK/split_host.pcap" read DM100:3 TC5
tcpdump_stop
same_as_raw "$WORK/split.pcap" "$WORK/split_host.pcap"
sim_stop

# Replies cut short (each comes in pieces a second apart, the host waits 0.1 s).
sim_start --listen 127.0.0.1:0 --faults split=1:1000
expect_exit 1 "$HOST" --tcp 127.0.0.1:$SIM_PORT --timeout 100 --capture "$WORK/cut_reply.pcap" read DM100
decode "$WORK/cut_reply.pcap" >"$WORK/cut_reply.txt"
no_lua_error "$WORK/cut_reply.txt"
expect_in "$WORK/cut_reply.txt" "Frame cut short"

# A file cut inside its last record: the records before it decode.
size=$(stat -c %s "$WORK/read.pcap")
head -c $((size - 5)) "$WORK/read.pcap" >"$WORK/cut_file.pcap"
decode "$WORK/cut_file.pcap" >"$WORK/cut_file.txt"
no_lua_error "$WORK/cut_file.txt"
expect_in "$WORK/tshark.err" "cut short in the middle of a packet"
expect_lines "$WORK/cut_file.txt" "${READ[@]:0:3}"

# Wireshark's personal plugin folder is enough: no option needed.
mkdir -p "$WORK/home/.local/lib/wireshark/plugins"
cp "$LUA" "$WORK/home/.local/lib/wireshark/plugins/"
[ "$(HOME=$WORK/home tshark -r "$WORK/read.pcap" -Y 'kv3000.operation == "read"' 2>/dev/null | wc -l)" = 8 ] ||
    fail "the dissector in ~/.local/lib/wireshark/plugins is not used"

# A capture that cannot be written: status 2 before connecting or listening.
expect_exit 2 "$HOST" --tcp 127.0.0.1:1 --capture "$WORK/no/such/dir.pcap" write DM1=1
expect_in "$WORK/err" "cannot write capture $WORK/no/such/dir.pcap"
expect_exit 2 "$SIM" --listen 127.0.0.1:0 --capture "$WORK/no/such/dir.pcap" </dev/null
expect_in "$WORK/err" "cannot write capture"
finish

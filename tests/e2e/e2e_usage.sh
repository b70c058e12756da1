# Documented messages and exit codes: help, info, refusals (2, nothing sent), peers that fail (1); the demo.
source "$(dirname "$0")/lib.sh" "$@"
expect_exit 0 "$HOST" --help
expect_grep x "$WORK/out" NAME SYNOPSIS DESCRIPTION OPTIONS COMMANDS ADDRESSES "EXIT STATUS" EXAMPLES
expect_exit 0 "$HOST" info
expect_in "$WORK/out" "version:        2.0.0.0" "registers (28):" \
    "parameters:     0,9600,8,EVEN,1,0,0,192.168.1.100,8000,kv_3000,MR_bit" \
    "  TC       DDDD       0      9999       32-bit  read/write" "  T        DDDD       0      9999       bit     read only"

# A simulator that counts requests shows that refused commands send nothing.
sim_start --listen 127.0.0.1:0
printf 'DM100,1\nQQ1,2\n' >"$WORK/bad.csv"
expect_refusals 2 "$HOST" <<EOF2
$T read XY100|XY100: unknown register "XY" ('kv3000-host info' lists them)
$T read DM100 DM70000|DM70000: out of range: DM addresses run from 0 to 65535
$T write DM100=1 T5=1|T5: T is read-only and cannot be written
$T read R5.x|R5.x: malformed address "5.x" for R (word.bit, e.g. R10.05)
$T write DM100=65536|value 65536 is too large for DM (at most 65535)
$T write DM5|DM5: expected ADDR=VALUE
$T watch|watch needs at least one address
$T frobnicate|unknown command 'frobnicate'
--bogus info|kv3000-host: unknown option '--bogus'
--tcp|missing value after '--tcp'
--tcp a:1 --serial /dev/ttyS0 info|
--tcp a:1|
--params 1#0#0#3#0 info|
recipe-upload|
--params 1#2#0#3#10 info|local write only (field 2) is 0 or 1
--params 1#0#0#0#10 info|the attempts per frame (field 4) must be 1 to 100
--params 1#0#0#3#10#5 info|has 6 field(s); it takes five
$T --live read DM0|--live changes values of the embedded simulator
$T read DM0 --for 3|--for goes with watch
$T read DM0 --output x.csv|--output goes with recipe-upload
$T recipe-download $WORK/bad.csv|bad.csv:2: QQ1: unknown register
EOF2
line=$(sim_stats | grep '^requests')
[[ $line == "requests 0 "*"connections 0" ]] || fail "the refused commands reached the simulator: $line"
sim_stop

expect_refusals 1 "$HOST" <<EOF2
$T read DM0|cannot connect to tcp 127.0.0.1:$SIM_PORT: Connection refused
--serial $WORK/no-such-tty read DM0|cannot open serial $WORK/no-such-tty 9600,8,EVEN,1: No such file or directory
--driver $WORK/none.so info|cannot load the driver $WORK/none.so
EOF2

# A peer that never answers: the host gives up and names what it did not read.
sim_start --listen 127.0.0.1:0 --faults drop=1
expect_exit 1 "$HOST" $T --timeout 50 read DM0 DM1 TC3
expect_in "$WORK/err" "read DM0 failed: no answer to the handshake from tcp 127.0.0.1:$SIM_PORT (connection failed)" \
    "not read: DM1, TC3"

# A peer that answers, but not like a controller: an HTTP server.
perl -MIO::Socket::INET -e '$s = IO::Socket::INET->new(LocalAddr => "127.0.0.1:0", Listen => 5) or die;
    $| = 1; print $s->sockport, "\n";
    while ($c = $s->accept) { $c->sysread($b, 64); $c->syswrite("HTTP/1.1 400 Bad Request\r\n\r\n"); close $c }' \
    >"$WORK/http.port" &
BG+=($!)
poll 10 test -s "$WORK/http.port"
expect_exit 1 timeout 20 "$HOST" --tcp "127.0.0.1:$(cat "$WORK/http.port")" --trace read DM0
expect_in "$WORK/err" "read DM0 failed: the peer at 127.0.0.1:$(cat "$WORK/http.port") does not answer like a KV-3000 (reply starts 48 54 54 50)" \
    "   not a KV-3000 reply; reply accepted"

# The demo (no command) ends within 15 s, values read back and moving; local-only writes are not claimed sent.
start=$SECONDS
expect_exit 0 timeout 30 "$HOST"
[ $((SECONDS - start)) -le 15 ] || fail "the demo took $((SECONDS - start)) s"
expect_in "$WORK/out" "embedded simulator, live values" "change(s) reported through the callback" \
    "wrote DM100:3 = 11,22,33" "   TC10,100000" "demo done: every value read back as written" "summary: "
dm0=($(grep -o 'DM0=[0-9]*' "$WORK/out" | cut -d= -f2))
[ "${dm0[-1]:-0}" -gt "${dm0[0]:-0}" ] || fail "DM0 did not count (${dm0[*]})"
expect_exit 0 timeout 30 "$HOST" --params 1#1#0#3#10
expect_in "$WORK/out" "   DM100:3 = 11,22,33 shown locally, not sent (local write only)" \
    "demo done: every value read back as written; the writes of step 2 were shown locally"
finish

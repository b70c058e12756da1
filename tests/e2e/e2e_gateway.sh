# gateway: bad maps refused; mbpoll and pymodbus (every function and exception) against the simulator.
source "$(dirname "$0")/lib.sh" "$@"
PY=/usr/bin/python3
command -v mbpoll >/dev/null && $PY -c 'import pymodbus' 2>/dev/null ||
    { echo "mbpoll or python3-pymodbus not installed: skipped"; exit 77; }
CLIENTS="$PY $(dirname "$0")/gateway_clients.py"
sim_start --listen 127.0.0.1:0

expect_refusals 2 "$HOST" $T <<'EOF'
gateway|gateway needs at least one map, ADDR[:COUNT]=TABLE START, e.g. DM0:100=hr0
gateway DM0:10=co0|map 'DM0:10=co0': DM holds 16-bit values: map it to holding registers (hr) or input registers (ir)
gateway R0.00:16=ir0|map 'R0.00:16=ir0': R holds bits: map it to coils (co) or discrete inputs (di)
gateway DM0:10=hr0 TM0:10=ir5 DM100:10=hr5|map 'DM100:10=hr5' overlaps map 'DM0:10=hr0' at hr5
gateway DM65530:10=hr0|map 'DM65530:10=hr0': runs past DM65535: DM addresses run from 0 to 65535
gateway TC0:3=ir65531|map 'TC0:3=ir65531': runs past Modbus address 65535 (6 registers from ir65531)
gateway DM0:10=xy0|map 'DM0:10=xy0': unknown table "xy" (hr holding registers
gateway DM0:0=hr0|map 'DM0:0=hr0': malformed count "0" (a number of units, 1 to 65536)
gateway DM0=hr|map 'DM0=hr': malformed start "" (a Modbus address, 0 to 65535
gateway DM0|map 'DM0': expected ADDR[:COUNT]=TABLE START, e.g. DM0:100=hr0
gateway XY0=hr0|map 'XY0=hr0': XY0: unknown register "XY"
gateway DM0=hr0 --modbus localhost:5020|bad --modbus: 'localhost' is not an IPv4 address
gateway DM0=hr0 --unit 256|bad --unit '256' (a Modbus unit id, 0 to 255)
serve DM0 --unit 1|--unit goes with gateway
EOF
expect_exit 1 "$HOST" $T gateway --modbus 127.0.0.1:$SIM_PORT DM0=hr0
expect_in "$WORK/err" "cannot listen on 127.0.0.1:$SIM_PORT: Address already in use"

# gateway_start NAME ARGS...: in the background; sets PORT and PID.
gateway_start() {
    run_bg "$1" "$HOST" "${@:2}"
    wait_for "$WORK/$1" "serving " 20 || finish
    PORT=$(sed -n '1s/^modbus on 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$WORK/$1")
    [ -n "$PORT" ] || fail "first line is not 'modbus on 127.0.0.1:PORT': $(head -1 "$WORK/$1")"
}
mb() { mbpoll -m tcp -p "$PORT" -0 -1 -o 5 "$@" 2>&1; } # once, PDU addressing
dm7_read() { mb -r 7 127.0.0.1 | grep -q $'^\\[7\\]: \t4660$'; }

gateway_start main $T gateway --modbus 127.0.0.1:0 --unit 1 --allow-writes \
    DM0:100=hr0 Z0:2=hr100 T4:4=co100 MR_bit10.00:32=co0 R0.00:16=di100 TC3:2=ir0 DM200:10=ir10
sim_set DM7 4660
poll 10 dm7_read || fail "mbpoll never read DM7 = 4660: $(mb -r 7 127.0.0.1)"
while IFS='|' read -r args values address expected; do
    mb $args 127.0.0.1 -- $values >"$WORK/mbpoll" || fail "mbpoll $args -- $values: $(cat "$WORK/mbpoll")"
    sim_is "$address" "$expected"
done <<'EOF'
-r 12|1234 65534|DM12:2|1234,65534
-r 100 -t 4:int|100000|Z0|100000
-r 3 -t 0|1 0 1|MR_bit10.03:3|1,0,1
EOF
mb -r 12 -c 2 127.0.0.1 | grep -qzF $'[12]: \t1234\n[13]: \t65534' || fail "mbpoll read back DM12:2: $(mb -r 12 -c 2 127.0.0.1)"
mb -r 100 -t 0 127.0.0.1 1 | grep -q "Illegal data address" || fail "mbpoll wrote the read-only T4"

$CLIENTS cases "$PORT" || fail "pymodbus cases"
expect_in "$WORK/main" "modbus write DM10 = 4321 from 127.0.0.1:"
stop_bg $PID TERM
# What the cases above refused, by code (and 11s if the first read came early).
expect_in "$WORK/main" "; modbus: " "exceptions (4 of code 1, 8 of code 2, 4 of code 3, 1 of code 10"

gateway_start readonly $T gateway --modbus 127.0.0.1:0 DM0:10=hr0 MR_bit10.00:8=co0
$CLIENTS readonly "$PORT" || fail "pymodbus without --allow-writes"
stop_bg $PID TERM

# A controller that never answers: nothing is read, and a write fails in time.
sim_start --listen 127.0.0.1:0 --faults drop=1
gateway_start down $T --timeout 100 gateway --modbus 127.0.0.1:0 --allow-writes DM0:10=hr0
$CLIENTS down "$PORT" || fail "pymodbus against a silent controller"
expect_in "$WORK/down.err" "modbus write DM0 = 1 from 127.0.0.1:"
stop_bg $PID TERM
finish

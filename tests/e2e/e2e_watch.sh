# watch: first values, then changes with their time; closed output; failing reads; nothing read; reconnects.
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0
for kv in "DM5 11" "TC3 70000"; do sim_set $kv; done
run_bg watch "$HOST" $T watch DM5:2 TC3 R1.02 MR_bit4.15 --for 600
wait_for "$WORK/watch" "DM5 = 11 (0x000B)" 10
expect_in "$WORK/watch" "DM6 = 0 (0x0000)" "TC3 = 70000 (0x00011170)" "R1.02 = 0" "watching 4 address(es) in"
for kv in "DM6 4660" "TC3 70001" "R1.02 1" "MR_bit4.15 1"; do sim_set $kv; done
for line in "DM6 = 4660 (0x1234)" "TC3 = 70001 (0x00011171)" "R1.02 = 1" "MR_bit4.15 = 1"; do
    wait_for "$WORK/watch" "$line" 10
done
stop_bg $PID INT
expect_in "$WORK/watch" "summary: "
grep -qE '^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}  DM6 = 4660' "$WORK/watch" || fail "change line without a timestamp"

sim_start --listen 127.0.0.1:0 --live
timeout 20 "$HOST" $T watch DM0 --for 1000000 | head -2 >"$WORK/head"
status=${PIPESTATUS[0]}
[ "$status" = 0 ] || fail "watch into a closed pipe exited $status"
expect_in "$WORK/head" "over tcp 127.0.0.1:$SIM_PORT for 1000000 s"

sim_start --listen 127.0.0.1:0 --faults drop=0.5 --seed 5
run_bg watch "$HOST" $T --timeout 30 watch DM0 --for 600
wait_for "$WORK/watch" "  1#DM0(1) failing: no valid reply after 3 attempts" 20
wait_for "$WORK/watch" "  1#DM0(1) read again" 20
stop_bg $PID INT
sim_start --listen 127.0.0.1:0 --faults drop=1
expect_exit 1 "$HOST" $T --timeout 30 watch DM0 TC3 --for 1
expect_in "$WORK/err" "never read: DM0, TC3"

# A restart of the controller: watch reconnects to the same port and keeps reporting changes.
sim_start --listen 127.0.0.1:0
PORT=$SIM_PORT
sim_set DM7 1
run_bg watch "$HOST" $T --timeout 200 watch DM7 --for 600
wait_for "$WORK/watch" "DM7 = 1 (0x0001)" 10
sim_stop
wait_for "$WORK/watch" "link lost" 10
sim_start --listen 127.0.0.1:$PORT
[ "$SIM_PORT" = "$PORT" ] || fail "the simulator came back on $SIM_PORT, not $PORT"
wait_for "$WORK/watch" "connected: tcp 127.0.0.1:$PORT" 20
sim_set DM7 2
wait_for "$WORK/watch" "DM7 = 2 (0x0002)" 10
stop_bg $PID INT
grep -q " [1-9][0-9]* reconnects" "$WORK/watch" || fail "no reconnect counted"

# A write after the peer closed the connection in the middle goes through.
sim_start --listen 127.0.0.1:$PORT --faults close=0.3 --seed 3
expect_exit 0 "$HOST" $T write DM8:20=5
sim_is DM27 5
finish

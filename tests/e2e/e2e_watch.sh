# watch prints the first values, then each change made in the simulator.
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0
sim_set DM5 11
sim_set TC3 70000
"$HOST" --tcp 127.0.0.1:$SIM_PORT watch DM5:2 TC3 R1.02 MR_bit4.15 --for 3 >"$WORK/watch" 2>"$WORK/watch.err" &
HOST_PID=$!
wait_for "$WORK/watch" "DM5 = 11 (0x000B)" 5
expect_in "$WORK/watch" "DM6 = 0 (0x0000)"
expect_in "$WORK/watch" "TC3 = 70000 (0x00011170)"
expect_in "$WORK/watch" "R1.02 = 0"
sim_set DM6 4660
sim_set TC3 70001
sim_set R1.02 1
sim_set MR_bit4.15 1
wait_for "$WORK/watch" "DM6 = 4660 (0x1234)" 3
wait_for "$WORK/watch" "TC3 = 70001 (0x00011171)" 3
wait_for "$WORK/watch" "R1.02 = 1" 3
wait_for "$WORK/watch" "MR_bit4.15 = 1" 3
wait "$HOST_PID"
[ $? = 0 ] || fail "watch exited $?"
expect_in "$WORK/watch" "watching 4 address(es) in"
expect_in "$WORK/watch" "summary: "
# Lines carry the time: "12:34:56.789  DM6 = 4660 (0x1234)".
grep -qE '^[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{3}  DM6 = 4660' "$WORK/watch" || fail "change line without a timestamp"
sim_stop

# A closed output ends watch at once, with status 0, and --for is echoed as typed.
sim_start --listen 127.0.0.1:0 --live
timeout 10 "$HOST" --tcp 127.0.0.1:$SIM_PORT watch DM0 --for 1000000 | head -2 >"$WORK/head"
status=${PIPESTATUS[0]}
[ "$status" = 0 ] || fail "watch into a closed pipe exited $status"
expect_in "$WORK/head" "over tcp 127.0.0.1:$SIM_PORT for 1000000 s"
sim_stop

# Reads that start failing and recover are shown; nothing read at all is exit 1.
sim_start --listen 127.0.0.1:0 --faults drop=0.5 --seed 5
"$HOST" --tcp 127.0.0.1:$SIM_PORT --timeout 30 watch DM0 --for 30 >"$WORK/watch" 2>&1 &
HOST_PID=$!
wait_for "$WORK/watch" "  1#DM0(1) failing: no valid reply after 3 attempts" 10
wait_for "$WORK/watch" "  1#DM0(1) read again" 10
kill -INT "$HOST_PID"
wait "$HOST_PID"
sim_stop
sim_start --listen 127.0.0.1:0 --faults drop=1
expect_exit 1 "$HOST" --tcp 127.0.0.1:$SIM_PORT --timeout 30 watch DM0 TC3 --for 1
expect_in "$WORK/err" "never read: DM0, TC3"

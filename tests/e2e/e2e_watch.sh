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
finish

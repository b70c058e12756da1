# The host rides out a restart of the controller: it reconnects to the same
# port and keeps reporting changes; one-shot commands reconnect too.
source "$(dirname "$0")/lib.sh" "$@"
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
sim_stop
sim_start --listen 127.0.0.1:$PORT --faults close=0.3 --seed 3
expect_exit 0 "$HOST" $T write DM8:20=5
sim_is DM27 5
finish

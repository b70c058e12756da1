# The host rides out a restart of the controller: it reconnects to the same
# port and keeps reporting changes.
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0
PORT=$SIM_PORT
sim_set DM7 1
"$HOST" --tcp 127.0.0.1:$PORT --timeout 200 watch DM7 --for 8 >"$WORK/watch" 2>"$WORK/watch.err" &
HOST_PID=$!
wait_for "$WORK/watch" "DM7 = 1 (0x0001)" 5
sim_stop
wait_for "$WORK/watch" "link lost" 5
sleep 0.5
sim_start --listen 127.0.0.1:$PORT
[ "$SIM_PORT" = "$PORT" ] || fail "the simulator came back on $SIM_PORT, not $PORT"
wait_for "$WORK/watch" "connected: tcp 127.0.0.1:$PORT" 5
sim_set DM7 2
wait_for "$WORK/watch" "DM7 = 2 (0x0002)" 5
kill -INT "$HOST_PID"
wait "$HOST_PID"
[ $? = 0 ] || fail "watch exited $?"
grep -q "reconnects" "$WORK/watch" && grep -q " [1-9][0-9]* reconnects" "$WORK/watch" || fail "no reconnect counted"

# One-shot commands reconnect too: a write after the peer closed the
# connection in the middle goes through.
sim_stop
sim_start --listen 127.0.0.1:$PORT --faults close=0.3 --seed 3
expect_exit 0 "$HOST" --tcp 127.0.0.1:$PORT write DM8:20=5
[ "$(sim_get DM27)" = 5 ] || fail "DM27 not written after reconnects"
finish

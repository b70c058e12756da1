# A recipe downloaded to the controller comes back unchanged on upload.
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0
T="--tcp 127.0.0.1:$SIM_PORT"
printf 'DM300,1,2,3\n# timers\nTC20,100000\nTS21,5,6\nW10,65535\nZ2,4000000000\nMR_bit10.05,1\nR5.03,1,0,1\n' >"$WORK/down.csv"
expect_exit 0 "$HOST" $T recipe-download "$WORK/down.csv"
expect_in "$WORK/out" "recipe downloaded: 7 row(s), 12 value(s)"
[ "$(sim_get DM300:3 | tr '\n' ' ')" = "1 2 3 " ] || fail "DM300:3 in the simulator: $(sim_get DM300:3 | tr '\n' ' ')"
[ "$(sim_get TC20)" = 100000 ] || fail "TC20 in the simulator"
[ "$(sim_get TS22)" = 6 ] || fail "TS22 in the simulator"
[ "$(sim_get Z2)" = 4000000000 ] || fail "Z2 in the simulator"
[ "$(sim_get MR_bit10.05)" = 1 ] || fail "MR_bit10.05 in the simulator"
[ "$(sim_get R5.03:3 | tr '\n' ' ')" = "1 0 1 " ] || fail "R5.03:3 in the simulator"

printf 'DM300:3\nTC20\nTS21:2\nW10\nZ2\nMR_bit10.05\nR5.03:3\n' >"$WORK/up.csv"
sim_set DM301 42
expect_exit 0 "$HOST" $T recipe-upload "$WORK/up.csv"
printf 'DM300,1,42,3\nTC20,100000\nTS21,5,6\nW10,65535\nZ2,4000000000\nMR_bit10.05,1\nR5.03,1,0,1\n' >"$WORK/want.csv"
diff "$WORK/want.csv" "$WORK/up.csv" >&2 || fail "the uploaded recipe differs"
expect_in "$WORK/out" "DM300,1,42,3"
expect_in "$WORK/out" "recipe uploaded: 7 row(s) written to $WORK/up.csv"

# A recipe the controller refuses (out of its range is caught before; an
# unreachable peer is not): the failure is reported with exit 1.
sim_stop
expect_exit 1 "$HOST" $T recipe-upload "$WORK/up.csv"
finish

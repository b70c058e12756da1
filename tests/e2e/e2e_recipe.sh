# A recipe downloaded to the controller comes back unchanged on upload; rows
# that name a unit twice are refused before anything is sent.
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

# The upload goes to standard output (nothing else there), its input stays
# as it was; --output writes a file.
printf 'DM300:3\nTC20\nTS21:2\nW10\nZ2\nMR_bit10.05\nR5.03:3\n' >"$WORK/up.csv"
cp "$WORK/up.csv" "$WORK/up.orig"
sim_set DM301 42
printf 'DM300,1,42,3\nTC20,100000\nTS21,5,6\nW10,65535\nZ2,4000000000\nMR_bit10.05,1\nR5.03,1,0,1\n' >"$WORK/want.csv"
expect_exit 0 "$HOST" $T recipe-upload "$WORK/up.csv"
diff "$WORK/want.csv" "$WORK/out" >&2 || fail "the uploaded recipe on standard output differs"
cmp -s "$WORK/up.csv" "$WORK/up.orig" || fail "recipe-upload changed its input"
expect_exit 0 "$HOST" $T recipe-upload "$WORK/up.csv" --output "$WORK/got.csv"
diff "$WORK/want.csv" "$WORK/got.csv" >&2 || fail "the uploaded recipe in --output differs"
expect_in "$WORK/out" "recipe uploaded: 7 row(s) written to $WORK/got.csv"

# Rows naming one unit twice, or a word and one of its bits, and semicolons.
printf 'DM100,1\nDM100,2\n' >"$WORK/twice.csv"
printf '# overlapping\nDM100,5\nDM99:3,7,8,9\n' >"$WORK/over.csv"
printf 'DM_bit100.05,1\nDM100,0\n' >"$WORK/bit.csv"
printf 'DM100;1\n' >"$WORK/semi.csv"
expect_exit 2 "$HOST" $T recipe-download "$WORK/twice.csv"
expect_in "$WORK/err" "twice.csv:2: DM100 and line 1 (DM100) both name DM100; a recipe transfers each unit from one row only"
expect_exit 2 "$HOST" $T recipe-download "$WORK/over.csv"
expect_in "$WORK/err" "over.csv:3: DM99:3 and line 2 (DM100) both name DM100"
expect_exit 2 "$HOST" $T recipe-download "$WORK/bit.csv"
expect_in "$WORK/err" "bit.csv:2: DM100 and line 1 (DM_bit100.05) both name DM100"
expect_exit 2 "$HOST" $T recipe-upload "$WORK/over.csv"
expect_exit 2 "$HOST" $T recipe-download "$WORK/semi.csv"
expect_in "$WORK/err" "semi.csv:1: expected comma-separated fields, found ';'"
[ "$(sim_get DM99:3 | tr '\n' ' ')" = "0 0 0 " ] || fail "a refused recipe reached the simulator"

# A recipe the controller refuses (out of its range is caught before; an
# unreachable peer is not): the failure is reported with exit 1.
sim_stop
expect_exit 1 "$HOST" $T recipe-upload "$WORK/up.csv"
finish

# A recipe downloaded to the controller comes back unchanged on upload (to
# standard output or --output, its input left as it was); rows that name a
# unit twice, or a word and one of its bits, and semicolons are refused
# before anything is sent; an unreachable controller is exit 1.
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0
printf 'DM300,1,2,3\n# timers\nTC20,100000\nTS21,5,6\nW10,65535\nZ2,4000000000\nMR_bit10.05,1\nR5.03,1,0,1\n' >"$WORK/down.csv"
expect_exit 0 "$HOST" $T recipe-download "$WORK/down.csv"
expect_in "$WORK/out" "recipe downloaded: 7 row(s), 12 value(s)"
while read -r address values; do sim_is "$address" "$values"; done <<'EOF2'
DM300:3 1,2,3
TC20 100000
TS22 6
W10 65535
Z2 4000000000
MR_bit10.05 1
R5.03:3 1,0,1
EOF2

printf 'DM300:3\nTC20\nTS21:2\nW10\nZ2\nMR_bit10.05\nR5.03:3\n' >"$WORK/up.csv"
cp "$WORK/up.csv" "$WORK/up.orig"
sim_set DM301 42
sed 's/^DM300,1,2,3/DM300,1,42,3/; /^#/d' "$WORK/down.csv" >"$WORK/want.csv"
expect_exit 0 "$HOST" $T recipe-upload "$WORK/up.csv"
diff "$WORK/want.csv" "$WORK/out" >&2 || fail "the uploaded recipe on standard output differs"
cmp -s "$WORK/up.csv" "$WORK/up.orig" || fail "recipe-upload changed its input"
expect_exit 0 "$HOST" $T recipe-upload "$WORK/up.csv" --output "$WORK/got.csv"
diff "$WORK/want.csv" "$WORK/got.csv" >&2 || fail "the uploaded recipe in --output differs"
[ "$(grep -vc '^summary: ' "$WORK/out")" = 1 ] && expect_in "$WORK/out" "recipe uploaded: 7 row(s) written to $WORK/got.csv" ||
    fail "with --output, standard output holds more than its line: $(cat "$WORK/out")"

printf 'DM100,1\nDM100,2\n' >"$WORK/twice.csv"
printf '# overlapping\nDM100,5\nDM99:3,7,8,9\n' >"$WORK/over.csv"
printf 'DM_bit100.05,1\nDM100,0\n' >"$WORK/bit.csv"
printf 'DM100;1\n' >"$WORK/semi.csv"
printf 'DM100:3\n' >"$WORK/none.csv"
expect_refusals 2 "$HOST" $T <<EOF2
recipe-download $WORK/twice.csv|twice.csv:2: DM100 and line 1 (DM100) both name DM100; a recipe transfers each unit from one row only
recipe-download $WORK/over.csv|over.csv:3: DM99:3 and line 2 (DM100) both name DM100
recipe-upload $WORK/over.csv|over.csv:3: DM99:3 and line 2 (DM100) both name DM100
recipe-download $WORK/bit.csv|bit.csv:2: DM100 and line 1 (DM_bit100.05) both name DM100
recipe-download $WORK/semi.csv|semi.csv:1: expected comma-separated fields, found ';'
recipe-download $WORK/none.csv|none.csv:1: DM100:3 has no value
EOF2
sim_is DM99:3 0,0,0
sim_stop
expect_exit 1 "$HOST" $T recipe-upload "$WORK/up.csv"
finish

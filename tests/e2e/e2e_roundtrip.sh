# Every register kind over TCP and serial; writes beyond the driver's queue; the trace; faulty writes; recipes.
source "$(dirname "$0")/lib.sh" "$@"
# Every register kind, with a value that is not the memory's initial zero.
ROUNDTRIP_VALUES=(
    DM100=1234 TM200=2 CM300=3 EM400=4 FM500=5 MR10=32769 LR20=7 CR30=8 W1F=9 ZF131071=10
    TC5=100000 TS6=200000 CC7=300000 CS8=400000 Z3=4294967295 TRM7=123456789
    R5.03=1 B3FF=1 MR_bit11.05=1 LR_bit2.15=1 CR_bit3.01=1 DM_bit600.07=1 TM_bit9999.15=1
    CM_bit700.00=1 EM_bit800.08=1 FM_bit900.03=1
)

# roundtrip LINK-OPTIONS...: writes every kind, reads it back (T, C: set on the console), checks the simulator.
roundtrip() {
    local addrs=() kv a v got
    for kv in "${ROUNDTRIP_VALUES[@]}"; do addrs+=("${kv%%=*}"); done
    expect_exit 0 "$HOST" "$@" write "${ROUNDTRIP_VALUES[@]}"
    [ "$(grep -c '^wrote ' "$WORK/out")" = ${#ROUNDTRIP_VALUES[@]} ] || fail "not every write confirmed"
    sim_set T5 1
    sim_set C6 1
    expect_exit 0 "$HOST" "$@" read "${addrs[@]}" T5 C6 T4
    for kv in "${ROUNDTRIP_VALUES[@]}" T5=1 C6=1 T4=0; do
        a=${kv%%=*}
        v=${kv#*=}
        got=$(grep -E "^$a = " "$WORK/out" | head -1 | awk '{print $3}')
        [ "$got" = "$v" ] || fail "read $a gave '$got', expected $v"
        sim_is "$a" "$v"
    done
}
sim_start --listen 127.0.0.1:0 --pty
PTY=(--serial "$SIM_PTY" --serial-params 115200,8,EVEN,1)
roundtrip $T
roundtrip "${PTY[@]}"

expect_exit 0 "$HOST" $T write R100.00:1024=1 MR_bit0.00:1024=1 DM1000:512=7 TC100:256=9
expect_in "$WORK/out" "wrote R100.00:1024 = 1 (each)"
for item in R100.00:1024=1 MR_bit0.00:1024=1 DM1000:512=7 TC100:256=9; do
    n=${item%=*}
    got=$(sim_get "${item%=*}" | grep -c "^${item#*=}\$")
    [ "$got" = "${n##*:}" ] || fail "${item%=*}: $got of ${n##*:} units hold ${item#*=} in the simulator"
done

expect_exit 0 "$HOST" $T write DM100=-1
expect_in "$WORK/out" "wrote DM100 = -1"
sim_is DM100 65535
expect_exit 0 "$HOST" $T --params 1#1#0#3#10 write DM101=4321
expect_in "$WORK/out" "DM101 = 4321 shown locally, not sent (local write only)"
sim_is DM101 0

# The trace on stderr apart from the results, replies decoded, a lone acknowledge on one line.
expect_exit 0 "$HOST" "${PTY[@]}" --trace write DM100:2=0x1234,0x5678
expect_in "$WORK/err" "-> 06 01 00 FF 10 1E 01 00 06 00 00 00 02 00 00 00 64 12 34 56 78 52 04   write DM 100 x2" \
    "<- 06 01 00 FF 1E 01 06 00 DC 04   status 00; reply accepted" "   values 4660; reply accepted" \
    "   handshake 1" "   handshake 2"
expect_exit 0 "$HOST" $T --trace write TC5=1000 R2.05=1 B10=0
expect_in "$WORK/err" "value write TC 5 = 1000" "bit set R 2.05" "bit reset B 10"
expect_exit 0 "$HOST" $T --trace read DM100:3 MR10:2 TC5 Z3 R5.03
expect_in "$WORK/err" "read DM 100 x3" "read MR 10 x2" "values 0x0008" \
    "values 1000; reply accepted" "values 4294967295; reply accepted"
expect_exit 0 "$HOST" $T --trace read T5
expect_in "$WORK/err" "read T/TC/TS 5 x" "   values 1, 0, 0"
grep -A1 -- '-> 06   acknowledge' "$WORK/err" | grep -q '^<-' && fail "an acknowledge took two trace lines"
grep -q -- '^[-<][->] ' "$WORK/out" && fail "trace lines among the results"

# 500 writes with 10% of each fault: each lands in the simulator or is reported failed with the driver's message.
sim_start --listen 127.0.0.1:0 --faults drop=0.1,corrupt=0.1,delay=0.1:50,split=0.1,garbage=0.1,close=0.1 --seed 1
args=()
for ((i = 0; i < 500; i++)); do args+=("DM$((2000 + i))=$((i + 1))"); done
"$HOST" $T --timeout 150 write "${args[@]}" >"$WORK/out" 2>"$WORK/err"
status=$?
wrote=$(grep -c '^wrote DM' "$WORK/out")
failed=$(grep -c '^kv3000-host: write DM[0-9]* failed: 1#DM[0-9]*(1)$' "$WORK/err")
echo "$wrote written, $failed reported failed"
[ $((wrote + failed)) = 500 ] || fail "$wrote written + $failed failed is not 500"
[ "$status" = $((failed > 0)) ] || fail "exit $status with $failed failures"
expect_in "$WORK/out" "summary: "
grep -q "(0 retried" "$WORK/out" && fail "nothing retried with 10% faults"
mapfile -t values < <(sim_get DM2000:500)
for ((i = 0; i < 500; i++)); do
    a=DM$((2000 + i))
    [ "${values[i]}" = $((i + 1)) ] && continue
    grep -q "^kv3000-host: write $a failed: 1#$a(1)\$" "$WORK/err" || fail "$a lost silently: the simulator has ${values[i]}"
    grep -q "^wrote $a = " "$WORK/out" && fail "$a reported written but the simulator has ${values[i]}"
done

# A recipe comes back unchanged on upload; rows naming a unit twice are refused; no controller is exit 1.
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

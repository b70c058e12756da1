# 500 writes through a link that drops, corrupts, delays, splits, prefixes
# with garbage and closes 10% of the replies each: every write ends either
# in the simulator's memory or reported failed with the driver's message.
source "$(dirname "$0")/lib.sh" "$@"
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
finish

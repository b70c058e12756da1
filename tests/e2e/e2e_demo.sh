# The demo runs on its own against the embedded simulator and ends within
# about 15 seconds with every value read back and a summary.
source "$(dirname "$0")/lib.sh" "$@"
start=$(date +%s)
expect_exit 0 timeout 30 "$HOST"
elapsed=$(($(date +%s) - start))
[ "$elapsed" -le 15 ] || fail "the demo took $elapsed s"
expect_in "$WORK/out" "embedded simulator, live values"
expect_in "$WORK/out" "change(s) reported through the callback"
expect_in "$WORK/out" "wrote DM100:3 = 11,22,33"
expect_in "$WORK/out" "   TC10,100000"
expect_in "$WORK/out" "demo done: every value read back as written"
expect_in "$WORK/out" "summary: "
# The live values moved during the watch: DM0 counts up.
first=$(grep -m1 -o 'DM0=[0-9]*' "$WORK/out" | cut -d= -f2)
last=$(grep -o 'DM0=[0-9]*' "$WORK/out" | tail -1 | cut -d= -f2)
[ "$last" -gt "$first" ] || fail "DM0 did not count ($first, $last)"
# With local-only writes the demo does not claim they reached the controller.
expect_exit 0 timeout 30 "$HOST" --params 1#1#0#3#10
expect_in "$WORK/out" "   DM100:3 = 11,22,33 shown locally, not sent (local write only)"
expect_in "$WORK/out" "demo done: every value read back as written; the writes of step 2 were shown locally"
finish

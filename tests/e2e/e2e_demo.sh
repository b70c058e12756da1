# The demo runs on its own against the embedded simulator and ends within
# about 15 seconds with every value read back, live values that moved, and
# a summary; with local-only writes it does not claim they were sent.
source "$(dirname "$0")/lib.sh" "$@"
start=$SECONDS
expect_exit 0 timeout 30 "$HOST"
[ $((SECONDS - start)) -le 15 ] || fail "the demo took $((SECONDS - start)) s"
expect_in "$WORK/out" "embedded simulator, live values" "change(s) reported through the callback" \
    "wrote DM100:3 = 11,22,33" "   TC10,100000" "demo done: every value read back as written" "summary: "
dm0=($(grep -o 'DM0=[0-9]*' "$WORK/out" | cut -d= -f2))
[ "${dm0[-1]:-0}" -gt "${dm0[0]:-0}" ] || fail "DM0 did not count (${dm0[*]})"
expect_exit 0 timeout 30 "$HOST" --params 1#1#0#3#10
expect_in "$WORK/out" "   DM100:3 = 11,22,33 shown locally, not sent (local write only)" \
    "demo done: every value read back as written; the writes of step 2 were shown locally"
finish

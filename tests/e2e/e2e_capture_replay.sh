# A capture played back by the simulator gives the host the values of the
# original run, faults included, and says how many requests it did not hold;
# --replay-check passes an unchanged run and names the first changed request.
source "$(dirname "$0")/lib.sh" "$@"
source "$(dirname "$0")/capture_lib.sh"
READS=(read DM100:3 TC5 R5.03 T5 MR10 W1F)

# values - the read lines of the last run, without the summary.
values() { grep -v '^summary: ' "$WORK/out"; }
# stats_line - the simulator's "replay ..." counters.
stats_line() { echo stats >&7; for _ in 1 2 3; do read -r -t 10 l <&8 && [[ $l == replay* ]] && echo "$l"; done; }

# The original: values set on the simulator's console, faults on a third of the replies.
sim_start --listen 127.0.0.1:0 --faults drop=0.15,corrupt=0.15,garbage=0.1 --seed 5 --capture "$WORK/sim.pcap"
for kv in "DM100 1 2 3" "TC5 100000" "R5.03 1" "T5 1" "MR10 32769" "W1F 9"; do sim_set $kv; done
expect_exit 0 "$HOST" $T --timeout 200 --capture "$WORK/host.pcap" "${READS[@]}"
values >"$WORK/original"
grep -o '[0-9]* retries, [0-9]* abandoned, [0-9]* timeouts' "$WORK/out" >"$WORK/original.faults"
grep -q '^0 retries' "$WORK/original.faults" && fail "no faults in the original run"
sim_stop

# Played back from either capture by a simulator whose memory is all zeros.
for capture in host sim; do
    sim_start --listen 127.0.0.1:0 --replay "$WORK/$capture.pcap"
    expect_exit 0 "$HOST" $T --timeout 200 "${READS[@]}"
    values | diff "$WORK/original" - >/dev/null || fail "$capture.pcap replayed: $(values | diff "$WORK/original" -)"
    grep -o '[0-9]* retries, [0-9]* abandoned, [0-9]* timeouts' "$WORK/out" | diff -q "$WORK/original.faults" - >/dev/null ||
        fail "$capture.pcap replayed with other faults: $(grep summary "$WORK/out"), originally $(cat "$WORK/original.faults")"
    # A request it does not hold (and the handshake, used up) comes from memory.
    expect_exit 0 "$HOST" $T read DM500
    expect_in "$WORK/out" "DM500 = 0"
    recorded=$(tshark -r "$WORK/$capture.pcap" -X lua_script:"$LUA" -Y 'kv3000.direction == 0 && kv3000.operation != "acknowledge"' 2>/dev/null | wc -l)
    [ "$(stats_line)" = "replay replayed $recorded from-memory 3" ] || fail "$capture.pcap: stats say '$(stats_line)', $recorded recorded"
    sim_stop
done

# The host checks its frames against a capture; the embedded simulator replays it.
expect_exit 0 "$HOST" --timeout 200 --replay-check "$WORK/host.pcap" "${READS[@]}"
values | grep -v '^replay-check' | diff -q "$WORK/original" - >/dev/null || fail "--replay-check run read other values"
expect_in "$WORK/out" "replay-check: the "
grep -qE "^replay-check: the ([0-9]+) requests sent match the capture$" "$WORK/out" || fail "$(grep replay-check "$WORK/out")"
expect_exit 1 "$HOST" --timeout 200 --replay-check "$WORK/host.pcap" read DM100:3 TC5 R5.03 T5 MR11 W1F
grep -qE "^replay-check: request [0-9]+ differs from record [0-9]+ of the capture: sent .* \(read MR 11 x1\), recorded .* \(read MR 10 x1\)$" \
    "$WORK/out" || fail "changed request not reported: $(grep replay-check "$WORK/out")"

expect_exit 1 "$HOST" --timeout 200 --replay-check "$WORK/host.pcap" "${READS[@]}" DM7
expect_in "$WORK/out" "is not in the capture, which ends after"
expect_in "$WORK/out" "(read DM 7 x1)"

# Files that are not captures of the link are refused before anything is served.
echo "not a capture" >"$WORK/junk.pcap"
expect_exit 2 "$SIM" --listen 127.0.0.1:0 --replay "$WORK/junk.pcap" </dev/null
expect_in "$WORK/err" "is not a pcap file"
expect_exit 2 "$HOST" --replay-check "$WORK/missing.pcap" read DM0
expect_in "$WORK/err" "cannot read capture $WORK/missing.pcap"
expect_exit 2 "$HOST" --capture "$WORK/info.pcap" info
expect_in "$WORK/err" "--capture goes with a command that talks to a controller"
finish

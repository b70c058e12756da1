# Write then read back every register kind over a serial line (the
# simulator's pseudo-terminal).
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0 --pty
[ -e "$SIM_PTY" ] || fail "no pseudo-terminal from the simulator"
roundtrip --serial "$SIM_PTY" --serial-params 115200,8,EVEN,1
# The serial line carries a trace like any other link, on stderr apart from
# the results, replies decoded, a lone acknowledge on one line.
expect_exit 0 "$HOST" --serial "$SIM_PTY" --trace write DM100:2=0x1234,0x5678
expect_in "$WORK/err" "-> 06 01 00 FF 10 1E 01 00 06 00 00 00 02 00 00 00 64 12 34 56 78 52 04   write DM 100 x2"
expect_in "$WORK/err" "<- 06 01 00 FF 1E 01 06 00 DC 04   status 00; reply accepted"
expect_in "$WORK/err" "   values 4660; reply accepted"
grep -A1 -- '-> 06   acknowledge' "$WORK/err" | grep -q '^<-' && fail "an acknowledge took two trace lines"
grep -q -- '^[-<][->] ' "$WORK/out" && fail "trace lines among the results"
finish

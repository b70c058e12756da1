# Write then read back every register kind over a serial line (the
# simulator's pseudo-terminal).
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0 --pty
[ -e "$SIM_PTY" ] || fail "no pseudo-terminal from the simulator"
roundtrip --serial "$SIM_PTY" --serial-params 115200,8,EVEN,1
# The serial line carries a trace like any other link.
expect_exit 0 "$HOST" --serial "$SIM_PTY" --trace write DM100:2=0x1234,0x5678
expect_in "$WORK/out" "-> 06 01 00 FF 10 1E 01 00 06 00 00 00 02 00 00 00 64 12 34 56 78 52 04   write DM 100 x2"
expect_in "$WORK/out" "reply accepted"
finish

# Write then read back every register kind over TCP and over a serial line
# (the simulator's pseudo-terminal); writes larger than the driver's write
# queue (a bit register takes one queue item per bit); values echoed as
# typed, local-only writes, and the trace of a serial line.
source "$(dirname "$0")/lib.sh" "$@"
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
grep -A1 -- '-> 06   acknowledge' "$WORK/err" | grep -q '^<-' && fail "an acknowledge took two trace lines"
grep -q -- '^[-<][->] ' "$WORK/out" && fail "trace lines among the results"
finish

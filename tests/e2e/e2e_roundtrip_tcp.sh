# Write then read back every register kind over TCP, and writes larger than
# the driver's write queue (a bit register takes one queue item per bit).
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0
roundtrip --tcp 127.0.0.1:$SIM_PORT

expect_exit 0 "$HOST" --tcp 127.0.0.1:$SIM_PORT write R100.00:1024=1 MR_bit0.00:1024=1 DM1000:512=7 TC100:256=9
expect_in "$WORK/out" "wrote R100.00:1024 = 1 (each)"
for item in R100.00:1024=1 MR_bit0.00:1024=1 DM1000:512=7 TC100:256=9; do
    want=${item#*=}
    n=${item%=*}
    n=${n##*:}
    got=$(sim_get "${item%=*}" | grep -c "^$want\$")
    [ "$got" = "$n" ] || fail "${item%=*}: $got of $n units hold $want in the simulator"
done

# A value is echoed as typed; local-only writes say they were not sent.
expect_exit 0 "$HOST" --tcp 127.0.0.1:$SIM_PORT write DM100=-1
expect_in "$WORK/out" "wrote DM100 = -1"
[ "$(sim_get DM100)" = 65535 ] || fail "DM100 = -1 is not 65535 in the simulator"
expect_exit 0 "$HOST" --tcp 127.0.0.1:$SIM_PORT --params 1#1#0#3#10 write DM101=4321
expect_in "$WORK/out" "DM101 = 4321 shown locally, not sent (local write only)"
[ "$(sim_get DM101)" = 0 ] || fail "a local-only write reached the simulator"
finish

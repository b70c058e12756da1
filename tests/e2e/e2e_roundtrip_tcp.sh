# Write then read back every register kind over TCP.
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0
roundtrip --tcp 127.0.0.1:$SIM_PORT
finish

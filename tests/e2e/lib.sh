# Helpers for the end-to-end scripts: run kv3000-sim with its console on a
# pair of FIFOs, and check what kv3000-host prints and returns.
# Usage in a script: source lib.sh; then HOST and SIM are the programs.
set -u
HOST=$1
SIM=$2
WORK=$(mktemp -d)
SIM_PID=
FAILED=0

cleanup() {
    sim_stop
    rm -rf "$WORK"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*" >&2
    FAILED=1
}

# sim_start ARGS...: starts the simulator; sets SIM_PORT (and SIM_PTY with --pty).
sim_start() {
    rm -f "$WORK/sim.in" "$WORK/sim.out"
    mkfifo "$WORK/sim.in" "$WORK/sim.out"
    "$SIM" "$@" <"$WORK/sim.in" >"$WORK/sim.out" 2>"$WORK/sim.err" &
    SIM_PID=$!
    exec 7>"$WORK/sim.in" 8<"$WORK/sim.out"
    local line
    if ! read -r -t 10 line <&8; then
        echo "simulator did not start: $(cat "$WORK/sim.err")" >&2
        exit 1
    fi
    SIM_PORT=${line##*:}
    SIM_PTY=
    case " $* " in
    *" --pty "*)
        read -r -t 10 line <&8
        SIM_PTY=${line#serial on }
        ;;
    esac
}

# sim_stop: quits the simulator and waits for it.
sim_stop() {
    [ -n "$SIM_PID" ] || return 0
    echo quit >&7 2>/dev/null
    exec 7>&-
    cat <&8 >/dev/null 2>&1
    exec 8<&-
    wait "$SIM_PID" 2>/dev/null
    SIM_PID=
}

# sim_get ADDR[:N]: the simulator's values, one per line ("DM100 1234" -> "1234").
sim_get() {
    echo "get $1" >&7
    local n=1 line i
    case $1 in *:*) n=${1##*:} ;; esac
    for ((i = 0; i < n; i++)); do
        read -r -t 10 line <&8 || return 1
        echo "${line##* }"
    done
}

# sim_set ADDR VALUE...: the simulator answers "ok".
sim_set() {
    echo "set $*" >&7
    local line
    read -r -t 10 line <&8
    [ "$line" = ok ] || fail "simulator: set $*: $line"
}

# expect_exit CODE CMD...: runs CMD, output in $WORK/out and $WORK/err.
expect_exit() {
    local want=$1
    shift
    "$@" >"$WORK/out" 2>"$WORK/err"
    local got=$?
    if [ "$got" != "$want" ]; then
        fail "'$*' exited $got, expected $want"
        sed 's/^/  out: /' "$WORK/out" | head -20 >&2
        sed 's/^/  err: /' "$WORK/err" | head -20 >&2
    fi
}

# expect_in FILE TEXT: FILE has a line containing TEXT.
expect_in() {
    grep -qF -- "$2" "$1" || {
        fail "no '$2' in $(basename "$1")"
        head -30 "$1" | sed 's/^/  | /' >&2
    }
}

finish() {
    if [ "$FAILED" = 0 ]; then
        echo "1 passed, 0 failed"
        exit 0
    fi
    echo "0 passed, 1 failed"
    exit 1
}

# Every register kind, with a value that is not the memory's initial zero.
ROUNDTRIP_VALUES=(
    DM100=1234 TM200=2 CM300=3 EM400=4 FM500=5 MR10=32769 LR20=7 CR30=8 W1F=9 ZF131071=10
    TC5=100000 TS6=200000 CC7=300000 CS8=400000 Z3=4294967295 TRM7=123456789
    R5.03=1 B3FF=1 MR_bit11.05=1 LR_bit2.15=1 CR_bit3.01=1 DM_bit600.07=1 TM_bit9999.15=1
    CM_bit700.00=1 EM_bit800.08=1 FM_bit900.03=1
)

# roundtrip LINK-OPTIONS...: writes every kind, reads it back through the
# host, and checks the simulator's memory; T and C (read-only) are set on
# the simulator's console and read.
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
        got=$(sim_get "$a")
        [ "$got" = "$v" ] || fail "simulator has $a = '$got', expected $v"
    done
}

# wait_for FILE TEXT SECONDS: until FILE has a line containing TEXT.
wait_for() {
    local i
    for ((i = 0; i < $3 * 20; i++)); do
        grep -qF -- "$2" "$1" 2>/dev/null && return 0
        sleep 0.05
    done
    fail "no '$2' in $(basename "$1") after $3 s"
    head -40 "$1" | sed 's/^/  | /' >&2
    return 1
}

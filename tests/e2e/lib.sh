# e2e helpers (source lib.sh "$@": HOST, SIM). Nothing waits a fixed time: every wait polls, with a timeout.
set -u
HOST=$1
SIM=$2
WORK=$(mktemp -d)
SIM_PID=
FAILED=0
BG=()

cleanup() { [ ${#BG[@]} = 0 ] || kill "${BG[@]}" 2>/dev/null; sim_stop; rm -rf "$WORK"; }
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; FAILED=1; }

finish() { [ "$FAILED" = 0 ] && { echo "1 passed, 0 failed"; exit 0; } || { echo "0 passed, 1 failed"; exit 1; }; }

# sim_start ARGS...: (re)starts the simulator; sets SIM_PORT, T (--tcp to it) and SIM_PTY (with --pty).
sim_start() {
    sim_stop
    rm -f "$WORK/sim.in" "$WORK/sim.out"
    mkfifo "$WORK/sim.in" "$WORK/sim.out"
    "$SIM" "$@" <"$WORK/sim.in" >"$WORK/sim.out" 2>"$WORK/sim.err" &
    SIM_PID=$!
    exec 7>"$WORK/sim.in" 8<"$WORK/sim.out"
    local line
    read -r -t 10 line <&8 || { echo "simulator did not start: $(cat "$WORK/sim.err")" >&2; exit 1; }
    SIM_PORT=${line##*:}
    T="--tcp 127.0.0.1:$SIM_PORT"
    SIM_PTY=
    [[ " $* " == *" --pty "* ]] && read -r -t 10 line <&8 && SIM_PTY=${line#serial on } || true
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
    [[ $1 == *:* ]] && n=${1##*:}
    for ((i = 0; i < n; i++)); do
        read -r -t 10 line <&8 || return 1
        echo "${line##* }"
    done
}

# sim_is ADDR[:N] VALUES: the simulator holds VALUES (comma-separated).
sim_is() {
    local got
    got=$(sim_get "$1" | paste -sd, -)
    [ "$got" = "$2" ] || fail "the simulator holds $1 = $got, expected $2"
}

# sim_stats: the simulator's "stats" lines (a get after them marks their end).
sim_stats() {
    echo stats >&7 && echo get DM0 >&7
    local line
    while read -r -t 10 line <&8 && [[ $line != "DM0 "* ]]; do echo "$line"; done
}

# sim_set ADDR VALUE...: the simulator answers "ok".
sim_set() { echo "set $*" >&7 && read -r -t 10 line <&8 && [ "$line" = ok ] || fail "simulator: set $*: $line"; }

# expect_exit CODE CMD...: runs CMD, output in $WORK/out and $WORK/err.
expect_exit() {
    "${@:2}" >"$WORK/out" 2>"$WORK/err"
    local got=$?
    [ "$got" = "$1" ] && return
    fail "'${*:2}' exited $got, expected $1"
    sed 's/^/  out: /' "$WORK/out" | head -20 >&2
    sed 's/^/  err: /' "$WORK/err" | head -20 >&2
}

# expect_grep FLAGS FILE TEXT...: grep -qFLAGS finds each TEXT in FILE.
expect_grep() {
    local flags=$1 file=$2 text
    for text in "${@:3}"; do
        grep "-q$flags" -- "$text" "$file" || {
            fail "no '$text' in $(basename "$file")"
            head -40 "$file" | sed 's/^/  | /' >&2
        }
    done
}
# expect_in FILE TEXT...: FILE has a line containing each TEXT.
expect_in() { expect_grep F "$@"; }

# expect_refusals CODE CMD...: for each stdin line ARGS|SENTENCE, CMD ARGS exits CODE saying SENTENCE on stderr.
expect_refusals() {
    local args sentence
    while IFS='|' read -r args sentence; do
        # shellcheck disable=SC2086
        expect_exit "$1" "${@:2}" $args </dev/null
        expect_in "$WORK/err" "$sentence"
    done
}

# poll SECONDS CMD...: runs CMD every 50 ms until it succeeds; false after SECONDS.
poll() {
    local end=$((SECONDS + $1))
    until "${@:2}"; do
        [ "$SECONDS" -le "$end" ] || return 1
        sleep 0.05
    done
}

# wait_for FILE TEXT SECONDS: until FILE has a line containing TEXT.
wait_for() {
    poll "$3" grep -qF -- "$2" "$1" 2>/dev/null && return 0
    fail "no '$2' in $(basename "$1") after $3 s"
    head -40 "$1" | sed 's/^/  | /' >&2
    return 1
}

# run_bg NAME CMD...: CMD in the background, output in $WORK/NAME and $WORK/NAME.err; sets PID.
run_bg() { "${@:2}" >"$WORK/$1" 2>"$WORK/$1.err" & PID=$! && BG+=("$PID"); }

# stop_bg PID SIGNAL: signals PID and expects it to end with status 0.
stop_bg() { kill "-$2" "$1" && wait "$1" || fail "pid $1 exited $? on SIG$2"; }

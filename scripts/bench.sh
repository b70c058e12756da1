#!/usr/bin/env bash
# Builds the Release benchmarks and runs them all, then prints the medians
# and the ratios that the goals are stated in.
#   scripts/bench.sh                        everything (about 5 minutes)
#   KV_BENCH_BASELINE=<git revision> scripts/bench.sh
#                                           the same benchmarks built against that
#                                           revision's driver too, side by side
#   KV_BENCH_REPETITIONS=9 KV_BENCH_ROUNDS=9 KV_BENCH_SECONDS=3 scripts/bench.sh
#   KV_BENCH_PIN=same|split|none            where the end-to-end pairs run: both on
#                                           CPU 0 (default, steady figures), server on
#                                           CPU 1 and client on CPU 0, or anywhere
# Installs what is missing (as root or through sudo), libmodbus-dev included.
# Results: build-release/bench-results/ (raw JSON, logs) and summary.txt there.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/packages.sh"
cd "$(dirname "$0")/.."
ROOT=$PWD
BUILD=${KV_BENCH_BUILD:-$ROOT/build-release}
OUT=$BUILD/bench-results
REPS=${KV_BENCH_REPETITIONS:-5}
ROUNDS=${KV_BENCH_ROUNDS:-5}
SECONDS_PER_RUN=${KV_BENCH_SECONDS:-2}
BASELINE=${KV_BENCH_BASELINE:-}
PIN=${KV_BENCH_PIN:-same}
# An idle CPU of this kind of machine takes tens of microseconds to wake, so
# a server and a client on two CPUs measure wake-ups more than work, and vary
# run to run. On one CPU each round trip is two context switches.
case "$PIN" in
same) ON_SERVER=(taskset -c 0); ON_CLIENT=(taskset -c 0) ;;
split) ON_SERVER=(taskset -c 1); ON_CLIENT=(taskset -c 0) ;;
*) ON_SERVER=(); ON_CLIENT=() ;;
esac
JOBS=$(nproc 2>/dev/null || echo 2)
[ "$JOBS" -gt 2 ] && JOBS=2

PACKAGES=(cmake g++ make pkg-config qtbase5-dev libgtest-dev libgmock-dev libbenchmark-dev libmodbus-dev time)


install_missing "${PACKAGES[@]}"
echo "== building Release in $BUILD"
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=Release -DKV_BUILD_BENCH=ON -DKV_BUILD_TESTS=OFF \
      -DKV_BUILD_TOOLS=ON >/dev/null
cmake --build "$BUILD" -j "$JOBS"
rm -rf "$OUT"
mkdir -p "$OUT"
B=$BUILD/bench

# The baseline: that revision's driver with today's benchmark programs.
BASE=""
if [ -n "$BASELINE" ]; then
    echo "== building the driver of $BASELINE with the same benchmarks"
    BASE=$BUILD/baseline
    rm -rf "$BASE/src"
    mkdir -p "$BASE/src"
    git archive "$BASELINE" | tar -x -C "$BASE/src"
    rm -rf "$BASE/src/bench"
    cp -r "$ROOT/bench" "$BASE/src/bench"
    cmake -S "$BASE/src" -B "$BASE/build" -DCMAKE_BUILD_TYPE=Release -DKV_BUILD_BENCH=ON -DKV_BUILD_TESTS=OFF \
          -DKV_BUILD_TOOLS=OFF >/dev/null
    cmake --build "$BASE/build" -j "$JOBS" >/dev/null
fi

# --- Google Benchmark programs: medians of REPS repetitions, CPU time ----------
run_benches() {  # BENCH-DIR MEDIANS-FILE LABEL
    for prog in bench_transaction bench_registration bench_writes bench_data_area bench_address_merge; do
        [ -x "$1/$prog" ] || continue
        echo "== $prog ($3)"
        "$1/$prog" --benchmark_repetitions="$REPS" --benchmark_report_aggregates_only=true \
            --benchmark_out="$OUT/$prog.$3.json" --benchmark_out_format=json 2>&1 | grep -E '_median|ERROR' || true
        # One line per result: name, CPU time, unit.
        awk -F'": ' '
            /^ *"name":/ { gsub(/[",]/, "", $2); name = $2 }
            /^ *"cpu_time":/ { gsub(/,/, "", $2); cpu = $2 }
            /^ *"time_unit":/ { gsub(/[",]/, "", $2); print name, cpu, $2 }' "$OUT/$prog.$3.json" >>"$2"
    done
}
run_benches "$B" "$OUT/medians.txt" now
[ -n "$BASE" ] && run_benches "$BASE/build/bench" "$OUT/medians.baseline.txt" baseline

# median_of NAME [FILE]: median CPU time of one benchmark, in its own unit ("12.3 us").
median_of() {
    awk -v want="$1_median" '$1 == want { printf "%.4g %s\n", $2, $3 }' "${2:-$OUT/medians.txt}"
}
value_of() { median_of "$1" "${2:-$OUT/medians.txt}" | awk '{print $1}'; }
# both NAME: "now" or "baseline -> now".
both() {
    if [ -n "$BASE" ]; then echo "$(median_of "$1" "$OUT/medians.baseline.txt") -> $(median_of "$1")"; else median_of "$1"; fi
}

# --- End to end over loopback TCP ---------------------------------------------
# start_server LOG CMD...: runs the server in the background, waits for its
# "port N" line; sets SERVER_PID and PORT.
start_server() {
    local log=$1
    shift
    : >"$log"
    "${ON_SERVER[@]}" "$@" >"$log" 2>&1 &
    SERVER_PID=$!
    for _ in $(seq 1 200); do
        PORT=$(awk '/^port /{print $2; exit}' "$log")
        [ -n "$PORT" ] && return 0
        sleep 0.02
    done
    echo "server did not start: $*" >&2
    kill "$SERVER_PID" 2>/dev/null || true
    return 1
}

run_client() {  # NAME SERVER-CMD -- CLIENT-CMD (PORT substituted for @PORT@)
    local name=$1
    shift
    local server=()
    while [ "$1" != "--" ]; do server+=("$1"); shift; done
    shift
    start_server "$OUT/e2e_server_$name.log" "${server[@]}" || return 0
    local args=()
    for a in "$@"; do args+=("${a//@PORT@/$PORT}"); done
    "${ON_CLIENT[@]}" "${args[@]}" >>"$OUT/e2e_$name.txt" 2>>"$OUT/e2e_client_$name.log" ||
        echo "$name client failed" >&2
    wait "$SERVER_PID" 2>/dev/null || true
}

echo "== end to end: $ROUNDS rounds of $SECONDS_PER_RUN s per loop"
for round in $(seq 1 "$ROUNDS"); do
    run_client driver "$B/e2e_kvserver" -- "$B/e2e_kvloop" driver @PORT@ "$SECONDS_PER_RUN" "$BUILD/libkv_3000.so"
    if [ -n "$BASE" ]; then
        run_client driver_baseline "$B/e2e_kvserver" -- \
            "$B/e2e_kvloop" driver @PORT@ "$SECONDS_PER_RUN" "$BASE/build/libkv_3000.so"
    fi
    run_client replay "$B/e2e_kvserver" -- "$B/e2e_kvloop" replay @PORT@ "$SECONDS_PER_RUN"
    run_client pingpong "$B/e2e_pingpong" server -- "$B/e2e_pingpong" client @PORT@ "$SECONDS_PER_RUN"
    if [ -x "$B/e2e_modbus" ]; then
        run_client modbus "$B/e2e_modbus" server -- "$B/e2e_modbus" client @PORT@ "$SECONDS_PER_RUN"
    fi
    echo "   round $round done"
done
if [ "$(grep -h '^request:' "$OUT"/e2e_client_driver.log "$OUT"/e2e_client_replay.log | sort -u | wc -l)" -ne 1 ]; then
    echo "warning: the driver loop and the replay sent different request bytes" >&2
fi

# The same two loops against the project's simulator (its values stand still,
# so the driver stores no changes there), and the reference host's memory.
host_watch() {  # DRIVER-LIB OUTPUT-NAME
    # 100,000 units: 196 keys of at most 512 words.
    local watch=()
    for a in $(seq 0 127); do watch+=("DM$((a * 512)):512"); done
    for a in $(seq 0 66); do watch+=("EM$((a * 512)):512"); done
    watch+=("EM34304:160")
    /usr/bin/time -v "$BUILD/tools/kv3000-host" --tcp "127.0.0.1:$SIM_PORT" --driver "$1" \
        watch "${watch[@]}" --for 3 >"$OUT/$2.txt" 2>"$OUT/$2.time" || true
}
SIM=$BUILD/tools/sim/kv3000-sim
if [ -x "$SIM" ]; then
    echo "== end to end against kv3000-sim"
    rm -f "$OUT/sim.in"
    mkfifo "$OUT/sim.in"
    "${ON_SERVER[@]}" "$SIM" --listen 127.0.0.1:0 <"$OUT/sim.in" >"$OUT/sim.log" 2>&1 &
    SIM_PID=$!
    exec 3>"$OUT/sim.in"
    SIM_PORT=""
    for _ in $(seq 1 200); do
        SIM_PORT=$(sed -n 's/^listening on .*:\([0-9]*\)$/\1/p' "$OUT/sim.log")
        [ -n "$SIM_PORT" ] && break
        sleep 0.02
    done
    if [ -n "$SIM_PORT" ]; then
        for round in $(seq 1 "$ROUNDS"); do
            "${ON_CLIENT[@]}" "$B/e2e_kvloop" driver "$SIM_PORT" "$SECONDS_PER_RUN" "$BUILD/libkv_3000.so" \
                >>"$OUT/e2e_sim_driver.txt" 2>>"$OUT/e2e_client_sim.log" || true
            "${ON_CLIENT[@]}" "$B/e2e_kvloop" replay "$SIM_PORT" "$SECONDS_PER_RUN" \
                >>"$OUT/e2e_sim_replay.txt" 2>>"$OUT/e2e_client_sim.log" || true
        done
        host_watch "$BUILD/libkv_3000.so" host_watch
        [ -n "$BASE" ] && host_watch "$BASE/build/libkv_3000.so" host_watch.baseline
    fi
    exec 3>&-
    wait "$SIM_PID" 2>/dev/null || true
fi

e2e_median() {  # NAME -> median transactions per second
    [ -s "$OUT/e2e_$1.txt" ] || { echo 0; return; }
    awk '{print $2}' "$OUT/e2e_$1.txt" | sort -g | awk '{v[NR]=$1} END {print (NR%2) ? v[(NR+1)/2] : (v[NR/2]+v[NR/2+1])/2}'
}

# --- Peak memory ----------------------------------------------------------------
"$B/e2e_rss" 100000 >"$OUT/rss.txt"
[ -n "$BASE" ] && "$BASE/build/bench/e2e_rss" 100000 >"$OUT/rss.baseline.txt"

# --- Summary --------------------------------------------------------------------
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.3f", a / b; else print "n/a" }'; }
max_rss() { awk -F': ' '/Maximum resident/ {print $2}' "$OUT/$1.time"; }
rss_field() { awk -v f="$2" '$1 == f {print $2}' "$OUT/$1"; }
DRV=$(e2e_median driver); REP=$(e2e_median replay); PP=$(e2e_median pingpong); MB=$(e2e_median modbus)
T1=$(value_of BM_CyclicRead128/1000); T100=$(value_of BM_CyclicRead128/100000)
{
    echo "machine: $(nproc) cores, $(. /etc/os-release && echo "$PRETTY_NAME"), $(uname -r)"
    echo "medians of $REPS repetitions (CPU time) and of $ROUNDS end-to-end rounds of $SECONDS_PER_RUN s, pinning: $PIN"
    [ -n "$BASE" ] && echo "figures as 'baseline -> now', baseline = driver of $BASELINE"
    echo
    echo "1. cyclic 128-word transaction (getSendFrame + dealRcvFrame, 128 change reports)"
    for n in 1000 10000 100000; do echo "   data area $n units: $(both BM_CyclicRead128/$n)"; done
    echo "   ratio 100k / 1k: $(ratio "$T100" "$T1")   (goal <= 1.5; goal < 20 us)"
    for n in 1 16 128; do echo "   block of $n words, 100k units: $(both BM_CyclicReadBlockLength/$n)"; done
    for n in 1000 10000 100000; do echo "   all $n units monitored, per block: $(both BM_CyclicReadAllMonitored/$n)"; done
    echo "2. registration, intf_addrMerge of random keys (goal < 200 ms for 100k)"
    for n in 1000 10000 100000; do
        echo "   $n keys: debug lines dropped by a handler $(both BM_AddrMerge/$n); debug off $(both BM_AddrMergeDebugOff/$n)"
    done
    echo "3. writes"
    echo "   intf_setData, one word, 500 pending: $(both BM_SetDataWith500Pending); debug off $(both BM_SetDataWith500PendingDebugOff)"
    echo "   intf_getSendFrame choice, full queues: $(both BM_SchedulerChoiceFullQueues)"
    echo "4. end to end, loopback TCP, transactions per second"
    [ -n "$BASE" ] && echo "   driver loop with the baseline driver: $(e2e_median driver_baseline)" \
        "($(ratio "$(e2e_median driver_baseline)" "$REP") of (a))"
    echo "   driver loop: $DRV   replay without driver (a): $REP   raw ping-pong (b): $PP   libmodbus (c): $MB"
    echo "   driver / (a): $(ratio "$DRV" "$REP")   (goal >= 0.95)"
    echo "   driver / (b): $(ratio "$DRV" "$PP")   libmodbus / (b): $(ratio "$MB" "$PP")   (goal: driver higher)"
    if [ -s "$OUT/e2e_sim_driver.txt" ]; then
        SD=$(e2e_median sim_driver); SR=$(e2e_median sim_replay)
        echo "   against kv3000-sim: driver loop $SD, replay $SR, ratio $(ratio "$SD" "$SR")"
    fi
    echo "5. peak memory, 100k monitored units"
    if [ -s "$OUT/host_watch.time" ]; then
        echo "   kv3000-host watch, 196 keys = 100,000 words, 3 s against kv3000-sim: max RSS" \
             "$([ -n "$BASE" ] && echo "$(max_rss host_watch.baseline) KiB ->") $(max_rss host_watch) KiB"
    fi
    echo "   e2e_rss, 100,000 one-word keys (the runtime's 100k-record key list included in the peak):"
    for f in rss_peak_kib rss_after_registration_kib rss_after_reads_kib; do
        echo "     $f: $([ -n "$BASE" ] && echo "$(rss_field rss.baseline.txt $f) ->") $(rss_field rss.txt $f)"
    done
} | tee "$OUT/summary.txt"

# serve: values appear and follow the simulator, writes with the token land
# in its memory, every refusal gives its status and the command line's
# sentence, 50 live streams (and a client that never reads, and one that
# leaves) do not hold the loop up, and SIGTERM ends it all promptly.
# Prints the delay from a simulator change to the live stream.
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0
sim_set DM5 11
T="--tcp 127.0.0.1:$SIM_PORT"

# serve_start NAME ARGS...: kv3000-host serve in the background; sets URL (and TOKEN).
serve_start() {
    local name=$1
    shift
    "$HOST" $T serve --http 127.0.0.1:0 "$@" >"$WORK/$name" 2>"$WORK/$name.err" &
    SERVE_PID=$!
    wait_for "$WORK/$name" "watching " 10 || exit 1
    URL=$(sed -n '1s#^serving \(http://127\.0\.0\.1:[0-9]*\)/$#\1#p' "$WORK/$name")
    [ -n "$URL" ] || fail "first line is not 'serving http://127.0.0.1:PORT/': $(head -1 "$WORK/$name")"
    TOKEN=$(sed -n '2s/^token: //p' "$WORK/$name")
}

# api METHOD PATH [CURL ARGS...]: sets CODE; the body is in $WORK/body.
api() {
    local method=$1 path=$2
    shift 2
    CODE=$(curl -s -o "$WORK/body" -w '%{http_code}' -X "$method" "$@" "$URL$path")
}
# field JQ-FILTER: of the body.
field() {
    jq -r "$1" "$WORK/body"
}
# unit_value NAME: its value in GET /api/values.
unit_value() {
    api GET /api/values
    field ".units[] | select(.name == \"$1\") | .value"
}
# until_value NAME VALUE: polls GET /api/values for up to 5 s.
until_value() {
    local i
    for ((i = 0; i < 100; i++)); do
        [ "$(unit_value "$1")" = "$2" ] && return 0
        sleep 0.05
    done
    fail "$1 never showed $2 (last: $(unit_value "$1"))"
}
# until_stats JQ-CONDITION: polls GET /api/stats (published twice a second)
# for up to 5 s until the condition holds.
until_stats() {
    local i
    for ((i = 0; i < 100; i++)); do
        api GET /api/stats
        [ "$(field "$1")" = true ] && return 0
        sleep 0.05
    done
    fail "stats never showed $1: $(cat "$WORK/body")"
}
write() {  # JSON-BODY [CURL ARGS...]
    local body=$1
    shift
    api POST /api/write -H "Authorization: Bearer $TOKEN" -H "Origin: $URL" -d "$body" "$@"
}

# Usage errors exit 2 before anything is sent; a port in use exits 1.
while IFS='|' read -r args sentence; do
    expect_exit 2 "$HOST" $T $args
    expect_in "$WORK/err" "$sentence"
done <<'EOF'
serve|serve needs at least one address
serve DM0 --http 127.0.0.1|bad --http: '127.0.0.1' has no port (HOST:PORT)
serve XY0|XY0: unknown register "XY"
watch DM0 --allow-writes|--allow-writes goes with serve
EOF
expect_exit 1 "$HOST" $T serve --http 127.0.0.1:$SIM_PORT DM0
expect_in "$WORK/err" "cannot listen on 127.0.0.1:$SIM_PORT: Address already in use"

# Writes are refused outright without --allow-writes, and only loopback
# names are served on loopback.
serve_start plain DM5
[ -z "$TOKEN" ] || fail "a token without --allow-writes"
write '{"address": "DM100", "value": 1}'
[ "$CODE" = 403 ] && [ "$(field .error)" = "writes are off: start kv3000-host serve with --allow-writes" ] ||
    fail "write without --allow-writes: $CODE $(cat "$WORK/body")"
api GET /api/values -H "Host: rebound.example:80"
[ "$CODE" = 403 ] || fail "a foreign Host header was served: $CODE"
kill -TERM $SERVE_PID
wait $SERVE_PID

serve_start main --allow-writes DM5:2 DM100 TC3 R1.02 T4 DM200:10
[ ${#TOKEN} -ge 32 ] || fail "token '$TOKEN' is shorter than 128 bits"
until_value DM5 11
api GET /api/values
[ "$(field '.units | length')" = 16 ] || fail "not one entry per unit: $(cat "$WORK/body")"
[ "$(field '.units[] | select(.name == "T4") | .writable')" = false ] || fail "T4 writable"
sim_set DM6 4660
until_value DM6 4660
until_stats '.linkUp and .transactions > 0 and .abandoned == 0'

# Writes that land: a number, a hexadecimal text, a bit, one value per unit.
while read -r body address expected; do
    write "$body"
    [ "$CODE" = 200 ] || fail "$body: $CODE $(cat "$WORK/body")"
    got=$(sim_get "$address" | paste -sd, -)
    [ "$got" = "$expected" ] || fail "$body: the simulator holds $address = $got, expected $expected"
done <<'EOF'
{"address":"DM100","value":1234} DM100 1234
{"address":"TC3","value":"0x11170"} TC3 70000
{"address":"R1.02","value":1} R1.02 1
{"address":"DM5","value":[7,-1]} DM5:2 7,65535
EOF
expect_in "$WORK/main" "web write DM100 = 1234 from 127.0.0.1: wrote DM100 = 1234"

# Refusals: status, then the sentence; 400s say what the command line says.
while IFS='|' read -r status auth origin method body sentence; do
    args=(-X "$method")
    case $auth in ok) args+=(-H "Authorization: Bearer $TOKEN") ;; wrong) args+=(-H "Authorization: Bearer 0$TOKEN") ;; esac
    case $origin in ok) args+=(-H "Origin: $URL") ;; none) ;; *) args+=(-H "Origin: $origin") ;; esac
    [ -n "$body" ] && args+=(-d "$body")
    api "$method" /api/write "${args[@]}"
    sentence=${sentence//@URL/$URL}
    if [ "$sentence" = CLI ]; then  # what 'kv3000-host write ADDR=VALUE' prints
        arg=$(jq -r '"\(.address)=\(.value)"' <<<"$body")
        expect_exit 2 "$HOST" $T write "$arg"
        sentence=$(sed -n '1s/^kv3000-host: //p' "$WORK/err")
        [ "$(field .error)" = "$sentence" ] || fail "$body: '$(field .error)' is not the command line's '$sentence'"
    fi
    error=$(field .error)
    [ "$CODE" = "$status" ] && [[ $error == *"$sentence"* ]] ||
        fail "$method $body ($auth, $origin): $CODE '$error', expected $status '$sentence'"
done <<'EOF'
401|none|ok|POST|{"address":"DM100","value":1}|write refused: no token (send Authorization: Bearer TOKEN
401|wrong|ok|POST|{"address":"DM100","value":1}|write refused: wrong token
403|ok|none|POST|{"address":"DM100","value":1}|write refused: no Origin header (send Origin: @URL)
403|ok|http://evil.example|POST|{"address":"DM100","value":1}|cross-site write refused: Origin 'http://evil.example' is not @URL
400|ok|ok|POST|{"address":"DM100",|the request body is not JSON
400|ok|ok|POST|[1]|the request body is not a JSON object
400|ok|ok|POST|{"value":1}|no "address" text in the request
400|ok|ok|POST|{"address":"DM100","value":true}|"value" must be a number
400|ok|ok|POST|{"address":"XY100","value":1}|CLI
400|ok|ok|POST|{"address":"DM70000","value":1}|CLI
400|ok|ok|POST|{"address":"DM100","value":65536}|CLI
400|ok|ok|POST|{"address":"DM100","value":1.5}|CLI
400|ok|ok|POST|{"address":"T4","value":1}|CLI
405|ok|ok|GET||GET cannot write: send POST /api/write
405|ok|ok|PUT|{"address":"DM100","value":1}|PUT cannot write
405|ok|ok|DELETE||DELETE cannot write
EOF
[ "$(sim_get DM100)" = 1234 ] || fail "a refused write reached the simulator"

# 50 live streams, a client that never reads and one that leaves; changes
# reach every stream, concurrent writes land, and the loop keeps its pace.
api GET /api/stats
before=$(field .transactionsPerSecond)
/usr/bin/python3 "$(dirname "$0")/serve_streams.py" "$URL" DM5 50 "$WORK/streams" &
STREAMS_PID=$!
for ((i = 0; i < 300; i++)); do
    [ -e "$WORK/streams.ready" ] && break
    sleep 0.05
done
[ -e "$WORK/streams.ready" ] || fail "the 50 streams did not all get their snapshot"
delays=()
for ((i = 1; i <= 20; i++)); do
    value=$((1000 + i))
    start=$(date +%s%N)
    sim_set DM5 $value
    for ((k = 0; k < 200; k++)); do
        line=$(grep -m1 "^0 $value " "$WORK/streams") && break
        sleep 0.01
    done
    [ -n "$line" ] || { fail "DM5 = $value never reached the stream"; break; }
    delays+=($(((${line##* } - start) / 1000000)))
done
writers=()
for ((i = 0; i < 10; i++)); do
    curl -s -o "$WORK/w$i" -w '%{http_code}\n' -H "Authorization: Bearer $TOKEN" -H "Origin: $URL" \
        -d "{\"address\":\"DM$((200 + i))\",\"value\":$((500 + i))}" "$URL/api/write" >"$WORK/w$i.code" &
    writers+=($!)
done
wait "${writers[@]}"
[ "$(cat "$WORK"/w*.code | sort -u)" = 200 ] || fail "concurrent writes: $(cat "$WORK"/w*.code | sort | uniq -c)"
[ "$(sim_get DM200:10 | paste -sd, -)" = 500,501,502,503,504,505,506,507,508,509 ] || fail "concurrent writes missing"
[ "$(grep -c " 1020 " "$WORK/streams")" = 50 ] || fail "not every stream saw DM5 = 1020"
until_stats '.streams >= 51'
during=$(field .transactionsPerSecond)
[ "$(field ".transactionsPerSecond > 0.5 * $before")" = true ] || fail "the loop slowed from $before to $during transactions/s"
sorted=$(printf '%s\n' "${delays[@]}" | sort -n)
echo "simulator change to the live stream, ms, 20 changes with 52 clients: median $(echo "$sorted" | sed -n 10p), max $(echo "$sorted" | tail -1); $before -> $during transactions/s"

# SIGTERM with the streams open: everything ends within 5 s.
start=$(date +%s%N)
kill -TERM $SERVE_PID
wait $SERVE_PID
status=$?
elapsed=$((($(date +%s%N) - start) / 1000000))
[ "$status" = 0 ] || fail "serve exited $status on SIGTERM"
[ "$elapsed" -lt 5000 ] || fail "serve took $elapsed ms to stop"
echo "stopped in $elapsed ms with 52 clients connected"
touch "$WORK/streams.stop"
wait $STREAMS_PID
expect_in "$WORK/main" "summary: "
finish

# serve: values, writes with the token, each refusal's status and sentence, a live stream, SIGTERM, a browser.
source "$(dirname "$0")/lib.sh" "$@"
sim_start --listen 127.0.0.1:0
sim_set DM5 11

# serve_start NAME ARGS...: kv3000-host serve in the background; sets URL, TOKEN and SERVE.
serve_start() {
    run_bg "$1" "$HOST" $T serve --http 127.0.0.1:0 "${@:2}"
    SERVE=$PID
    wait_for "$WORK/$1" "watching " 20 || finish
    URL=$(sed -n '1s#^serving \(http://127\.0\.0\.1:[0-9]*\)/$#\1#p' "$WORK/$1")
    [ -n "$URL" ] || fail "first line is not 'serving http://127.0.0.1:PORT/': $(head -1 "$WORK/$1")"
    TOKEN=$(sed -n '2s/^token: //p' "$WORK/$1")
}
# api METHOD PATH [CURL ARGS...]: sets CODE; the body is in $WORK/body.
api() { CODE=$(curl -s -o "$WORK/body" -w '%{http_code}' -X "$1" "${@:3}" "$URL$2"); }
field() { jq -r "$1" "$WORK/body"; }
write() { api POST /api/write -H "Authorization: Bearer $TOKEN" -H "Origin: $URL" -d "$1"; }
# until_api PATH JQ-CONDITION: polls the path (values and statistics are published periodically).
api_true() { api GET "$1" && [ "$(field "$2")" = true ]; }
until_api() { poll 10 api_true "$1" "$2" || fail "$1 never showed $2: $(cat "$WORK/body")"; }
unit() { echo ".units[] | select(.name == \"$1\") | .${2:-value}"; }

expect_refusals 2 "$HOST" $T <<'EOF2'
serve|serve needs at least one address
serve DM0 --http 127.0.0.1|bad --http: '127.0.0.1' has no port (HOST:PORT)
serve XY0|XY0: unknown register "XY"
watch DM0 --allow-writes|--allow-writes goes with serve
EOF2
expect_exit 1 "$HOST" $T serve --http 127.0.0.1:$SIM_PORT DM0
expect_in "$WORK/err" "cannot listen on 127.0.0.1:$SIM_PORT: Address already in use"

# Without --allow-writes no token and no write; only loopback names are served on loopback.
serve_start plain DM5
[ -z "$TOKEN" ] || fail "a token without --allow-writes"
write '{"address": "DM100", "value": 1}'
[ "$CODE $(field .error)" = "403 writes are off: start kv3000-host serve with --allow-writes" ] ||
    fail "write without --allow-writes: $CODE $(cat "$WORK/body")"
for name in rebound.example:80 127.0.0.1.rebound.example 127.rebound.example:80; do
    api GET /api/values -H "Host: $name"
    [ "$CODE" = 403 ] || fail "the foreign Host header $name was served: $CODE"
done
stop_bg $SERVE TERM

serve_start main --allow-writes DM5:2 DM100 TC3 R1.02 T4 DM200:10
[ ${#TOKEN} -ge 32 ] || fail "token '$TOKEN' is shorter than 128 bits"
until_api /api/values "$(unit DM5) == 11"
[ "$(field '.units | length')" = 16 ] || fail "not one entry per unit: $(cat "$WORK/body")"
[ "$(field "$(unit T4 writable)")" = false ] || fail "T4 writable"
sim_set DM6 4660
until_api /api/values "$(unit DM6) == 4660"
until_api /api/stats '.linkUp and .transactions > 0 and .abandoned == 0'

# Writes that land: a number, a hexadecimal text, a bit, one value per unit.
while read -r body address expected; do
    write "$body"
    [ "$CODE" = 200 ] || fail "$body: $CODE $(cat "$WORK/body")"
    sim_is "$address" "$expected"
done <<'EOF2'
{"address":"DM100","value":1234} DM100 1234
{"address":"TC3","value":"0x11170"} TC3 70000
{"address":"R1.02","value":1} R1.02 1
{"address":"DM5","value":[7,-1]} DM5:2 7,65535
EOF2
expect_in "$WORK/main" "web write DM100 = 1234 from 127.0.0.1: wrote DM100 = 1234"

# Refusals: status, then the sentence; 400s say what the command line says (CLI).
while IFS='|' read -r status auth origin method body sentence; do
    args=(-X "$method")
    case $auth in ok) args+=(-H "Authorization: Bearer $TOKEN") ;; wrong) args+=(-H "Authorization: Bearer 0$TOKEN") ;; esac
    case $origin in ok) args+=(-H "Origin: $URL") ;; none) ;; *) args+=(-H "Origin: $origin") ;; esac
    [ -n "$body" ] && args+=(-d "$body")
    api "$method" /api/write "${args[@]}"
    sentence=${sentence//@URL/$URL}
    if [ "$sentence" = CLI ]; then
        expect_exit 2 "$HOST" $T write "$(jq -r '"\(.address)=\(.value)"' <<<"$body")"
        sentence=$(sed -n '1s/^kv3000-host: //p' "$WORK/err")
        [ "$(field .error)" = "$sentence" ] || fail "$body: '$(field .error)' is not the command line's '$sentence'"
    fi
    [ "$CODE" = "$status" ] && [[ $(field .error) == *"$sentence"* ]] ||
        fail "$method $body ($auth, $origin): $CODE '$(field .error)', expected $status '$sentence'"
done <<'EOF2'
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
EOF2
sim_is DM100 1234

# 12 x 64 relay bits are more items than the driver's queue (513): parallel writes wait for room, none is lost.
writers=()
for ((i = 0; i < 12; i++)); do
    curl -s -o /dev/null -w '%{http_code}\n' -H "Authorization: Bearer $TOKEN" -H "Origin: $URL" \
        -d "{\"address\":\"R$((100 + 4 * i)).00:64\",\"value\":1}" "$URL/api/write" >"$WORK/w$i.code" &
    writers+=($!)
done
wait "${writers[@]}"
[ "$(cat "$WORK"/w*.code | sort -u)" = 200 ] || fail "parallel writes: $(cat "$WORK"/w*.code | sort | uniq -c)"
[ "$(sim_get R100.00:768 | sort -u)" = 1 ] || fail "a relay bit of a write answered 200 did not reach the controller"

# A change reaches a live stream (many streams: stress_serve); SIGTERM with the stream open ends all within 5 s.
run_bg stream curl -sN "$URL/api/events"
until_api /api/stats '.streams == 1'
sim_set DM5 1020
poll 10 grep -qE '"value": ?1020[,}]' "$WORK/stream" || fail "DM5 = 1020 never reached the stream: $(tail -c 300 "$WORK/stream")"
start=$(date +%s%N)
stop_bg $SERVE TERM
elapsed=$((($(date +%s%N) - start) / 1000000))
[ "$elapsed" -lt 5000 ] || fail "serve took $elapsed ms to stop"
expect_in "$WORK/main" "summary: "

# The page in headless Chromium (serve_browser.py); the screenshot is kept as build/tests/e2e/serve.png.
for tool in /usr/bin/chromium /usr/bin/chromedriver; do
    [ -x "$tool" ] || { fail "$tool is missing (scripts/dev.sh installs chromium and chromium-driver)"; finish; }
done
sim_start --listen 127.0.0.1:0 --live
serve_start browser --allow-writes DM0 DM1 T0 TC0 R0.00 DM100
timeout 90 /usr/bin/python3 "$(dirname "$0")/serve_browser.py" "$URL" "$TOKEN" "$PWD/serve.png" || fail "the browser test failed"
sim_is DM100 1234
stop_bg $SERVE TERM
finish

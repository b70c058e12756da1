# The page of serve in a real browser (headless Chromium through Selenium):
# a live value changes on screen, DM100 written through the form lands in
# the simulator, and a screenshot is kept in the build tree (ctest runs this
# in build/tests/e2e: serve.png there).
source "$(dirname "$0")/lib.sh" "$@"
for tool in /usr/bin/chromium /usr/bin/chromedriver; do
    [ -x "$tool" ] || { fail "$tool is missing (scripts/dev.sh installs chromium and chromium-driver)"; finish; }
done
sim_start --listen 127.0.0.1:0 --live
run_bg serve "$HOST" $T serve --http 127.0.0.1:0 --allow-writes DM0 DM1 T0 TC0 R0.00 DM100
wait_for "$WORK/serve" "watching " 20 || finish
URL=$(sed -n '1s#^serving \(http://.*\)/$#\1#p' "$WORK/serve")
TOKEN=$(sed -n '2s/^token: //p' "$WORK/serve")
timeout 90 /usr/bin/python3 "$(dirname "$0")/serve_browser.py" "$URL" "$TOKEN" "$PWD/serve.png" || fail "the browser test failed"
sim_is DM100 1234
expect_in "$WORK/serve" "web write DM100 = 1234 from 127.0.0.1: wrote DM100 = 1234"
stop_bg $PID TERM
finish

#!/usr/bin/env bash
# start-ta.sh -- start a headless Tally Arbiter 3.3.0 server on loopback with the test config.
# Usage: start-ta.sh [RUN_DIR]          (default RUN_DIR=/tmp/peers/ta-run)
# Env:   TA_HOME        dir holding node_modules/tallyarbiter (default: this folder, see scripts/peers)
#        TA_PORT        HTTP + Socket.IO port (default 4455; passed to TA as $PORT)
#        TA_HOOK_PORT   Incoming-Webhook source port (default 4456; patched into config.json)
#        TA_CONFIG      config template (default: ta-config.json next to this script)
#        TA_WAIT_S      seconds to wait for readiness (default 20)
# Fixed, not configurable in TA: vMix emulator TCP 8099, OSC action UDP 5958 (so one TA per netns).
# Writes RUN_DIR/ta.pid and RUN_DIR/ta.log; exits 0 once /health answers and 8099 accepts.
set -euo pipefail
HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
RUN_DIR="${1:-/tmp/peers/ta-run}"
TA_HOME="${TA_HOME:-$HERE}"
TA_PORT="${TA_PORT:-4455}"
TA_HOOK_PORT="${TA_HOOK_PORT:-4456}"
TA_CONFIG="${TA_CONFIG:-$HERE/ta-config.json}"
TA_WAIT_S="${TA_WAIT_S:-20}"
ENTRY="$TA_HOME/node_modules/tallyarbiter/dist/index.js"
[ -f "$ENTRY" ] || { echo "tallyarbiter not installed at $TA_HOME (run scripts/peers install)" >&2; exit 2; }
# Tally Arbiter 3.3.0 needs require(esm): Node >= 20.19 (or >= 22.12). Exit 77 = "skip".
node -e 'const [a,b]=process.versions.node.split(".").map(Number); process.exit(a>22||(a==22&&b>=12)||(a==20&&b>=19)||a==21?0:1)' \
  || { echo "Node $(node --version) is too old for Tally Arbiter (needs >= 20.19)" >&2; exit 77; }
if [ -f "$RUN_DIR/ta.pid" ] && kill -0 "$(cat "$RUN_DIR/ta.pid")" 2>/dev/null; then
  echo "already running: pid $(cat "$RUN_DIR/ta.pid")" >&2; exit 3
fi
# fresh state every start: config is re-read from the template, logs/TallyData start empty
rm -rf "$RUN_DIR/appdata"
mkdir -p "$RUN_DIR/appdata/TallyArbiter"
sed "s/\"port\": 4456/\"port\": $TA_HOOK_PORT/; s#127.0.0.1:4455#127.0.0.1:$TA_PORT#" "$TA_CONFIG" \
  > "$RUN_DIR/appdata/TallyArbiter/config.json"
cd "$RUN_DIR"   # TA calls dotenv.config(): make sure no stray .env is picked up
rm -f .env
T0=$(date +%s%N)
APPDATA="$RUN_DIR/appdata" PORT="$TA_PORT" NODE_ENV=production \
  nohup node -r "$HERE/loopback-guard.cjs" "$ENTRY" > "$RUN_DIR/ta.log" 2>&1 < /dev/null &
PID=$!
echo "$PID" > "$RUN_DIR/ta.pid"
for _ in $(seq 1 $((TA_WAIT_S * 10))); do
  if ! kill -0 "$PID" 2>/dev/null; then echo "TA died during start-up, see $RUN_DIR/ta.log" >&2; tail -20 "$RUN_DIR/ta.log" >&2; exit 1; fi
  if curl -s -m 1 "http://127.0.0.1:$TA_PORT/health" 2>/dev/null | grep -q '^ok$' \
     && grep -q "Listening for VMix Tally Connections on TCP Port 8099" "$RUN_DIR/ta.log" \
     && grep -q "Incoming Webhook listening on port $TA_HOOK_PORT" "$RUN_DIR/ta.log"; then
    echo "TA ready: pid $PID, http://127.0.0.1:$TA_PORT, webhook http://127.0.0.1:$TA_HOOK_PORT/tally, vMix tcp 127.0.0.1:8099 ($(( ($(date +%s%N)-T0)/1000000 )) ms)"
    exit 0
  fi
  sleep 0.1
done
echo "TA not ready after ${TA_WAIT_S}s, see $RUN_DIR/ta.log" >&2
kill -TERM "$PID" 2>/dev/null || true
exit 1

#!/usr/bin/env bash
# Tally Arbiter 3.3.0 in the foreground with the test configuration ta-config.json: devices dev1
# "Camera 1" and dev2 "Camera 2", buses preview (green, priority 50) and program (red, 200), its
# Socket.IO and HTTP side on 127.0.0.1:4455, an incoming webhook on 4456 (POST /tally
# {"1":["program"],"2":["preview"]}: address 1 is dev1), the vMix emulator on 8099 and OSC on 5958
# (fixed ports: one server per network namespace).
# Usage: start-ta.sh [RUN_DIR]   state starts afresh in RUN_DIR (default: a new temporary folder).
# It runs behind loopback-guard.cjs (left to itself it binds every interface and announces itself
# over mDNS). Exit 77: Node is too old for it.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
entry="$here/node_modules/tallyarbiter/dist/index.js"
[ -f "$entry" ] || { echo "Tally Arbiter is not installed (scripts/peers install)" >&2; exit 2; }
# It needs require(esm): Node >= 20.19 or >= 22.12.
node -e 'const [a,b]=process.versions.node.split(".").map(Number); process.exit(a>22||(a==22&&b>=12)||(a==20&&b>=19)||a==21?0:1)' \
  || { echo "Node $(node --version) is too old for Tally Arbiter (needs >= 20.19)" >&2; exit 77; }
run="${1:-$(mktemp -d)}"
rm -rf "$run/appdata"
mkdir -p "$run/appdata/TallyArbiter"
cp "$here/ta-config.json" "$run/appdata/TallyArbiter/config.json"
cd "$run" # it reads a .env file from the working folder
APPDATA="$run/appdata" PORT=4455 NODE_ENV=production exec node -r "$here/loopback-guard.cjs" "$entry"

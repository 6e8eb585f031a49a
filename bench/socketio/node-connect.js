// node-connect.js -- the baseline of the connect benchmark: Node's socket.io-client opening a
// session to the same local server, the same number of times, one after the other.
// Usage: node node-connect.js <peers dir> <server url> <count>
// Prints one JSON line: {"upgraded_ms":[...],"connect_ms":[...]} where "connect" is the
// socket's connect event (still on polling) and "upgraded" the end of the WebSocket upgrade,
// the point at which our client reports connected().
'use strict';
const path = require('path');
const { io } = require(path.join(process.argv[2], 'node_modules', 'socket.io-client'));
const url = process.argv[3];
const count = +process.argv[4];
const upgraded = [];
const connected = [];

function once() {
  return new Promise((resolve, reject) => {
    const t0 = process.hrtime.bigint();
    const ms = () => Number(process.hrtime.bigint() - t0) / 1e6;
    const socket = io(url, { reconnection: false, forceNew: true, timeout: 5000 });
    let connectMs = null;
    let upgradeMs = null;
    const done = () => {
      if (connectMs === null || upgradeMs === null) return;
      connected.push(connectMs);
      upgraded.push(upgradeMs);
      socket.disconnect();
      setTimeout(resolve, 20);
    };
    socket.io.on('open', () => socket.io.engine.once('upgrade', () => { upgradeMs = ms(); done(); }));
    socket.on('connect', () => { connectMs = ms(); done(); });
    socket.on('connect_error', (e) => reject(e));
  });
}

(async () => {
  await once(); // warm-up, not counted
  upgraded.length = 0;
  connected.length = 0;
  for (let i = 0; i < count; i++) await once();
  console.log(JSON.stringify({ upgraded_ms: upgraded, connect_ms: connected }));
  process.exit(0);
})().catch((e) => { console.error(String(e)); process.exit(1); });

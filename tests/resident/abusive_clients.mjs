// Clients that misbehave on purpose: `node abusive_clients.mjs <port>`. Prints one
// "ok"/"not ok" line per check and exits non-zero when one failed.
import net from 'node:net';

const port = Number(process.argv[2]);
const auth = `X-Kst-Token: ${process.env.KX_TOKEN}\r\n`;
let failed = 0;
const report = (ok, what) => {
  if (!ok) failed++;
  console.log(`${ok ? 'ok' : 'not ok'} - ${what}`);
};

// Sends `bytes` (optionally half-closing), resolves with everything the server
// sent and how the connection ended.
function exchange(bytes, { halfClose = false, timeoutMs = 20000 } = {}) {
  return new Promise((resolve) => {
    const socket = net.connect(port, '127.0.0.1');
    const chunks = [];
    const started = Date.now();
    const timer = setTimeout(() => { socket.destroy(); resolve({ data: Buffer.concat(chunks), timedOut: true }); }, timeoutMs);
    socket.on('connect', () => {
      if (bytes.length) socket.write(bytes);
      if (halfClose) socket.end();
    });
    socket.on('data', (d) => chunks.push(d));
    socket.on('error', () => {});
    socket.on('close', () => {
      clearTimeout(timer);
      resolve({ data: Buffer.concat(chunks), timedOut: false, ms: Date.now() - started });
    });
  });
}

async function healthMs() {
  const started = Date.now();
  const reply = await exchange(Buffer.from('GET /health HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n'), { timeoutMs: 5000 });
  const ok = reply.data.toString().includes('"app":"Kestrune"');
  return ok ? Date.now() - started : Infinity;
}

function openIdle(count) {
  return Promise.all(Array.from({ length: count }, () => new Promise((resolve) => {
    const s = net.connect(port, '127.0.0.1', () => resolve(s));
    s.on('error', () => resolve(s));
  })));
}

// Idle connections neither block others nor live past the receive time-out.
{
  const idle = await openIdle(200);
  const ms = await healthMs();
  report(ms < 1000, `health answers in ${ms} ms while 200 idle connections are open`);
  const closedBy = await Promise.all(idle.slice(0, 5).map((s) => new Promise((resolve) => {
    const started = Date.now();
    s.on('close', () => resolve(Date.now() - started));
    setTimeout(() => resolve(Infinity), 20000);
  })));
  report(closedBy.every((ms) => ms < 17000), `idle connections are closed by the server (${closedBy.map(Math.round).join(', ')} ms)`);
  idle.forEach((s) => s.destroy());
}

// A head that never ends is cut at its limit, without an answer.
{
  const reply = await exchange(Buffer.from('GET /health HTTP/1.1\r\nX-Pad: ' + 'a'.repeat(70000)));
  report(!reply.timedOut && reply.data.length === 0, 'an oversized head is dropped without an answer');
}

// A body announced above 32 MiB is dropped silently.
{
  const reply = await exchange(Buffer.from('POST /console/exec?bot=cli HTTP/1.1\r\nContent-Length: 41943040\r\n\r\npwd'));
  report(!reply.timedOut && reply.data.length === 0, 'a 40 MiB body is dropped without an answer');
}

// A body shorter than announced, then half-closed: the server answers what came.
{
  const reply = await exchange(Buffer.from(`POST /console/exec?bot=cli HTTP/1.1\r\n${auth}Content-Length: 100\r\n\r\npwd`), { halfClose: true });
  report(reply.data.toString().startsWith('HTTP/1.1 200 OK') && reply.data.toString().includes('"out":"OK: '),
    'a half-closed short body is still answered');
}

// Garbage, NUL bytes, bare line feeds and a half-close.
{
  const garbage = [Buffer.from([0, 1, 2, 0xff, 0xfe, 13, 10, 13, 10]), Buffer.from('\n\n\n\n'),
    Buffer.from('GET\r\n\r\n'), Buffer.from(' / HTTP/1.1\r\n: x\r\n\r\n'), Buffer.from('\x16\x03\x01\x02\x00')];
  const replies = await Promise.all(garbage.map((g) => exchange(g, { halfClose: true })));
  report(replies.every((r) => !r.timedOut), 'garbage requests end their connections');
}

// Slow clients: a head trickled byte by byte is still served.
{
  const socket = net.connect(port, '127.0.0.1');
  const text = 'GET /health HTTP/1.1\r\n\r\n';
  const chunks = [];
  socket.on('data', (d) => chunks.push(d));
  socket.on('error', () => {});
  const closed = new Promise((r) => socket.on('close', r));
  for (const ch of text) { socket.write(ch); await new Promise((r) => setTimeout(r, 20)); }
  await closed;
  report(Buffer.concat(chunks).toString().includes('"app":"Kestrune"'), 'a trickled request is served');
}

// WebSocket connections with broken frames.
{
  const upgrade = `GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n${auth}Upgrade: websocket\r\nConnection: Upgrade\r\n` +
    'Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n';
  const frames = [
    Buffer.from([0x81, 0xff, 0x7f, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff]),  // 2^63 bytes
    Buffer.from([0x82, 0xfe, 0xff, 0xff]),  // 64 KiB promised, never sent, half-closed
    Buffer.from([0x83, 0x80, 1, 2, 3, 4, 0x8b, 0x80, 1, 2, 3, 4]),  // reserved opcodes
    Buffer.from([0x00, 0x85, 1, 2, 3, 4, 1, 2, 3, 4, 5]),  // continuation without a start
  ];
  const replies = await Promise.all(frames.map((f) => exchange(Buffer.concat([Buffer.from(upgrade), f]), { halfClose: true })));
  report(replies.every((r) => !r.timedOut && r.data.toString().startsWith('HTTP/1.1 101')),
    'broken WebSocket frames end their connections');
}

// A burst of connections opened and dropped at once.
{
  await Promise.all(Array.from({ length: 1000 }, () => new Promise((resolve) => {
    const s = net.connect(port, '127.0.0.1', () => { s.destroy(); resolve(); });
    s.on('error', resolve);
  })));
  const ms = await healthMs();
  report(ms < 1000, `health answers in ${ms} ms after 1000 dropped connections`);
}

process.exit(failed ? 1 : 0);

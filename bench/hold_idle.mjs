// Holds idle connections against a resident until killed:
// `node hold_idle.mjs <port> <half-sent requests> <WebSockets>` (KX_TOKEN in the
// environment). Prints "holding <n>" once they are all open.
import net from 'node:net';

const [port, idle, sockets] = process.argv.slice(2).map(Number);
const upgrade = `GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Kst-Token: ${process.env.KX_TOKEN}\r\n` +
  'Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n';
const held = [];
async function open(count, first) {
  for (let done = 0; done < count; done += 500) {
    held.push(...await Promise.all(Array.from({ length: Math.min(500, count - done) }, () => new Promise((resolve) => {
      const s = net.connect(port, '127.0.0.1', () => { s.write(first); resolve(s); });
      s.on('error', () => resolve(s));
    }))));
  }
}
await open(sockets, upgrade);
await open(idle, 'GET /health HTTP/1.1\r\nX-Pad: a');
console.log(`holding ${held.length}`);
setInterval(() => {}, 1 << 30);

// A terminal session pushed over WebSocket, against a real resident:
//   KX=<path to kx> node --test tests/term/term_ws.test.mjs
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import WebSocket from 'ws';
import { startResident, sleep } from './resident.mjs';

let resident;
before(async () => { resident = await startResident(process.env.KX); });
after(() => resident.stop());

// One watcher: every output byte with the offset it started from.
class Watcher {
  constructor(id, from = 0) {
    this.bytes = Buffer.alloc(0);
    this.events = [];
    this.ws = new WebSocket(resident.wsUrl(`/term/ws?id=${id}&from=${from}`));
    this.ws.on('message', (data, binary) => {
      if (binary) this.bytes = Buffer.concat([this.bytes, data]);
      else this.events.push(JSON.parse(data.toString()));
    });
    this.opened = new Promise((resolve, reject) => { this.ws.once('open', resolve); this.ws.once('error', reject); });
    this.closed = new Promise((resolve) => this.ws.once('close', resolve));
  }
  text() { return this.bytes.toString('latin1'); }
  async waitFor(pattern, ms = 10000) {
    for (const end = Date.now() + ms; Date.now() < end; await sleep(20))
      if (pattern.test(this.text())) return;
    assert.fail(`no ${pattern} in ${JSON.stringify(this.text().slice(-400))}`);
  }
  type(text) { this.ws.send(text); }
  resize(cols, rows) { this.ws.send(Buffer.from(JSON.stringify({ type: 'resize', cols, rows })), { binary: true }); }
}

test('several watchers, resize by control message, resume from an offset, the end', async () => {
  const opened = await resident.api('POST', '/term/open?cmd=' + encodeURIComponent('bash --norc --noprofile'));
  assert.equal(opened.ok, true);
  const id = opened.id;

  const a = new Watcher(id);
  await a.opened;
  a.type('echo one-$((40+2))\r');
  await a.waitFor(/\rone-42\r\n/);
  assert.deepEqual(a.events[0], { type: 'attached', id, offset: 0, alive: true });

  const b = new Watcher(id);  // a second client sees the same stream
  await b.opened;
  b.resize(90, 33);
  b.type('stty size\r');
  await a.waitFor(/\r33 90\r\n/);
  await b.waitFor(/\r33 90\r\n/);

  // A dropped client resumes exactly where it stopped.
  const reached = a.bytes.length;
  a.ws.close();
  await a.closed;
  b.type('echo two-$((1+1))\r');
  await b.waitFor(/two-2\r\n/);
  const resumed = new Watcher(id, reached);
  await resumed.opened;
  await resumed.waitFor(/two-2\r\n/);
  assert.equal(resumed.events[0].offset, reached);
  await sleep(200);
  assert.equal(resumed.text(), b.text().slice(reached));

  // The HTTP view agrees with the stream while nothing has been trimmed.
  const read = await resident.api('GET', `/term/read?id=${id}`);
  assert.equal(read.len, b.bytes.length);

  b.type('exit 4\r');
  await Promise.all([b.closed, resumed.closed]);
  assert.deepEqual(b.events.at(-1), { type: 'ended', exit: 4 });
  assert.match(b.text(), /\n\[session ended, exit 4\]\n$/);

  // Attaching after the end replays everything, then ends.
  const late = new Watcher(id);
  await late.closed;
  assert.equal(late.text(), b.text());
  assert.deepEqual(late.events, [{ type: 'attached', id, offset: 0, alive: false }, { type: 'ended', exit: 4 }]);
});

test('an unknown session, a missing token or a foreign page is refused before the upgrade', async () => {
  const upgrade = (url, options) => new Promise((resolve) => {
    const ws = new WebSocket(url, options);
    ws.on('unexpected-response', (req, res) => resolve(res.statusCode));
    ws.on('open', () => { ws.close(); resolve(101); });
    ws.on('error', () => {});
  });
  assert.equal(await upgrade(resident.wsUrl('/term/ws?id=t404')), 404);
  const id = (await resident.api('POST', '/term/open?cmd=' + encodeURIComponent('bash --norc --noprofile'))).id;
  assert.equal(await upgrade(`ws://127.0.0.1:${resident.port}/term/ws?id=${id}`), 403);
  assert.equal(await upgrade(resident.wsUrl(`/term/ws?id=${id}`), { origin: 'http://evil.example' }), 403);
  assert.equal(await upgrade(resident.wsUrl(`/term/ws?id=${id}`)), 101);
  await resident.api('POST', `/term/close?id=${id}`);
});

test('a bot shares a session through chat and types into it', async () => {
  const id = (await resident.api('POST', '/term/open?cmd=' + encodeURIComponent('bash --norc --noprofile'))).id;
  const refused = await resident.api('POST', `/term/share?id=${id}&bot=ghost`);
  assert.deepEqual(refused, { ok: false, error: 'selected bot is not connected' });

  const bot = new WebSocket(resident.wsUrl('/'));
  const texts = [];
  bot.on('message', (data) => {
    const message = JSON.parse(data.toString());
    if (message.type === 'msg') texts.push(message.msg);
  });
  await new Promise((resolve) => bot.once('open', resolve));
  bot.send('register-bot\nada\n');
  await sleep(200);
  assert.deepEqual(await resident.api('POST', `/term/share?id=${id}&bot=ada`), { ok: true, id, bot: 'ada' });
  bot.send(`dm\nnobody\n::term.send ${id}\necho shared-$((3*3))`);
  for (let i = 0; i < 100 && !texts.some((m) => m.kind === 'dm' && /shared-9\n/.test(m.text)); i++) await sleep(50);
  const intro = texts.find((m) => m.text.startsWith('TERMINAL ATTACHED.'));
  assert.ok(intro, 'the bot was greeted');
  assert.equal(intro.from, 'terminal');
  assert.equal(intro.terminal, id);
  assert.match(intro.text, new RegExp(`::term.send ${id}\\n<command>\\n\\nCurrent screen:\\n`));
  assert.ok(texts.some((m) => m.terminal === id && /shared-9\n/.test(m.text)), 'output reached the bot');

  bot.send('msg\n::term.send t999\nls');
  for (let i = 0; i < 50 && !texts.some((m) => m.text === 'ERROR: no such terminal'); i++) await sleep(50);
  assert.ok(texts.some((m) => m.text === 'ERROR: no such terminal'));
  bot.close();
  await resident.api('POST', `/term/close?id=${id}`);
});

// Chat over WebSocket against a real resident, with the `ws` client:
//   KX=<path to kx> node --test tests/resident/chat.test.mjs
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import WebSocket from 'ws';

const kx = process.env.KX;
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'kx-chat-e2e-'));
const userHome = path.join(work, 'user');
let port;
let resident;
let token;
// Every private route and WebSocket needs the home's token.
const auth = () => ({ Authorization: `Bearer ${token}` });
const get = async (p) => (await fetch(url(p), { headers: auth() })).json();

const freePort = () => new Promise((resolve) => {
  const s = net.createServer().listen(0, '127.0.0.1', () => { const p = s.address().port; s.close(() => resolve(p)); });
});
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const url = (p) => `http://127.0.0.1:${port}${p}`;

// A chat client that keeps every parsed message and can wait for one.
class Client {
  constructor() {
    this.messages = [];
    this.waiters = [];
    this.ws = new WebSocket(`ws://127.0.0.1:${port}/`, { headers: auth() });
    this.ws.on('message', (data) => {
      const msg = JSON.parse(data.toString());
      this.messages.push(msg);
      this.waiters = this.waiters.filter((w) => !(w.match(msg) && (w.resolve(msg), true)));
    });
    this.opened = new Promise((resolve, reject) => { this.ws.once('open', resolve); this.ws.once('error', reject); });
    this.closed = new Promise((resolve) => this.ws.once('close', (code) => resolve(code)));
  }
  send(text) { this.ws.send(text); }
  waitFor(match, ms = 3000) {
    const seen = this.messages.find(match);
    if (seen) return Promise.resolve(seen);
    return new Promise((resolve, reject) => {
      const timer = setTimeout(() => reject(new Error('timed out waiting for a message')), ms);
      this.waiters.push({ match, resolve: (m) => { clearTimeout(timer); resolve(m); } });
    });
  }
}

const startResident = async () => {
  resident = spawn(kx, ['boot', '--port', String(port), '--conf', path.join(work, 'home')], {
    env: { ...process.env, HOME: userHome, XDG_RUNTIME_DIR: work }, stdio: 'ignore',
  });
  for (let i = 0; i < 50; i++) {
    try {
      if ((await fetch(url('/health'))).ok) {
        token = fs.readFileSync(path.join(work, 'home', 'resident.token'), 'utf8').trim();
        return;
      }
    } catch { /* not up yet */ }
    await sleep(100);
  }
  throw new Error('resident did not come up');
};

const stopResident = async () => {
  resident.kill('SIGTERM');
  await new Promise((r) => resident.once('exit', r));
};

before(async () => {
  fs.mkdirSync(path.join(userHome, '.Kestrune', 'config'), { recursive: true });
  fs.writeFileSync(path.join(userHome, '.Kestrune', 'config', 'bot.cfg'), '[callsigns]\nfalcon\n');
  port = await freePort();
  await startResident();
});

after(async () => {
  await stopResident();
  fs.rmSync(work, { recursive: true, force: true });
});

test('join, talk, direct messages, roster and logs', async () => {
  const ann = new Client();
  const ben = new Client();
  await Promise.all([ann.opened, ben.opened]);
  ann.send('join\ngeneral\nann');
  const joined = await ann.waitFor((m) => m.type === 'joined');
  assert.deepEqual({ channel: joined.channel, name: joined.name }, { channel: 'general', name: 'ann' });
  ann.send('msg\nhello there');
  await ann.waitFor((m) => m.type === 'msg' && m.msg.text === 'hello there');

  ben.send('join\ngeneral\nben');
  const benJoined = await ben.waitFor((m) => m.type === 'joined');
  assert.ok(benJoined.history.some((r) => r.from === 'ann' && r.text === 'hello there' && r.kind === 'chat'));
  const roster = await ann.waitFor((m) => m.type === 'roster' && m.users.length === 2);
  assert.deepEqual([...roster.users].sort(), ['ann', 'ben']);
  assert.ok(roster.detail.every((d) => d.live === true && d.channel === 'general'));

  ben.send('dm\nann\njust you');
  const dm = await ann.waitFor((m) => m.type === 'msg' && m.msg.kind === 'dm');
  assert.equal(dm.msg.from, 'ben');
  assert.equal(dm.msg.to, 'ann');
  ben.send('dm\nnobody\nhi');
  const notice = await ben.waitFor((m) => m.type === 'msg' && m.msg.kind === 'sys' && m.msg.text.startsWith('no such user:'));
  assert.equal(notice.msg.from, 'server');

  ben.ws.close(1000);
  assert.equal(await ben.closed, 1000);
  await ann.waitFor((m) => m.type === 'msg' && m.msg.text === 'ben left general');

  const log = await get('/chatlog?channel=general');
  assert.equal(log.ok, true);
  assert.ok(log.records.some((r) => r.text === 'hello there'));
  const channels = await get('/channels');
  assert.deepEqual(channels, { ok: true, channels: ['general'] });
  const thread = await get('/dm/thread?a=ann&b=ben');
  assert.equal(thread.msgs.length, 1);
  assert.ok(fs.existsSync(path.join(userHome, '.Kestrune', 'chatlogs', 'general.log')));
  ann.ws.close();
});

test('a nameless client gets a callsign and fragments are joined', async () => {
  const anon = new Client();
  await anon.opened;
  anon.send('join\n', { fin: false });
  anon.send('general', { fin: true });
  const joined = await anon.waitFor((m) => m.type === 'joined');
  assert.equal(joined.name, 'falcon');
  await anon.waitFor((m) => m.type === 'msg' && m.msg.text === 'your callsign is now falcon');
  anon.ws.close();
});

test('ping is answered with the same payload', async () => {
  const c = new Client();
  await c.opened;
  const pong = new Promise((resolve) => c.ws.once('pong', (data) => resolve(data.toString())));
  c.ws.ping('still there?');
  assert.equal(await pong, 'still there?');
  c.ws.close();
});

test('a frame above 1 MiB ends the connection without a close frame', async () => {
  const c = new Client();
  await c.opened;
  c.send('msg\n' + 'x'.repeat(1024 * 1024 + 1));
  assert.equal(await c.closed, 1006);
  const health = await (await fetch(url('/health'))).json();
  assert.equal(health.app, 'Kestrune');
});

test('broken UTF-8 reaches everyone as U+FFFD, in frames and in the history, across a restart', async () => {
  const sender = new Client();
  await sender.opened;
  sender.send('join\nbytes\nsam');
  await sender.waitFor((m) => m.type === 'joined');
  // A text frame whose payload is not UTF-8 (ws sends the bytes as they are), then
  // the same bytes as a binary frame.
  sender.ws.send(Buffer.concat([Buffer.from('msg\nbad '), Buffer.from([0xff, 0xfe]), Buffer.from(' end')]), { binary: false });
  const relayed = await sender.waitFor((m) => m.type === 'msg' && m.msg.from === 'sam' && m.msg.text.startsWith('bad'));
  assert.equal(relayed.msg.text, 'bad \ufffd\ufffd end');
  sender.ws.send(Buffer.concat([Buffer.from('msg\nbin '), Buffer.from([0xc0, 0xaf])]), { binary: true });
  const binary = await sender.waitFor((m) => m.type === 'msg' && m.msg.text.startsWith('bin'));
  assert.equal(binary.msg.text, 'bin \ufffd\ufffd');
  sender.send('msg\nstill here');
  await sender.waitFor((m) => m.type === 'msg' && m.msg.text === 'still here');
  assert.equal(sender.ws.readyState, WebSocket.OPEN);

  const later = new Client();
  await later.opened;
  later.send('join\nbytes\nlee');
  const joined = await later.waitFor((m) => m.type === 'joined');
  assert.ok(joined.history.some((r) => r.text === 'bad \ufffd\ufffd end'));
  sender.ws.close();
  later.ws.close();

  // A record an older build logged with the raw bytes is repaired when replayed.
  await stopResident();
  const log = path.join(userHome, '.Kestrune', 'chatlogs', 'bytes.log');
  fs.appendFileSync(log, Buffer.concat([
    Buffer.from('{"seq":99,"ts":1,"kind":"chat","from":"old","text":"raw '), Buffer.from([0xff, 0xfe]), Buffer.from('"}\n')]));
  await startResident();
  const after = new Client();
  await after.opened;
  after.send('join\nbytes\nmay');
  const rejoined = await after.waitFor((m) => m.type === 'joined');
  assert.ok(rejoined.history.some((r) => r.text === 'bad \ufffd\ufffd end'));
  assert.ok(rejoined.history.some((r) => r.from === 'old' && r.text === 'raw \ufffd\ufffd'));
  after.send('msg\nafter restart');
  const next = await after.waitFor((m) => m.type === 'msg' && m.msg.text === 'after restart');
  assert.ok(next.msg.seq > 99);  // numbering goes on from the repaired record
  assert.equal(after.ws.readyState, WebSocket.OPEN);
  const records = await get('/chatlog?channel=bytes');
  assert.ok(records.records.some((r) => r.text === 'raw \ufffd\ufffd'));
  after.ws.close();
});

// `kx mcp` connects promptly and serves the right home whatever holds its port: no
// resident yet, a resident of its own home, or a resident of another home.
//   KX=<path to kx> node --test tests/mcp/connect.test.mjs
import { test, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { Client } from '@modelcontextprotocol/sdk/client/index.js';
import { StdioClientTransport } from '@modelcontextprotocol/sdk/client/stdio.js';
import { StreamableHTTPClientTransport } from '@modelcontextprotocol/sdk/client/streamableHttp.js';

const kx = process.env.KX;
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'kx-mcp-connect-'));
const ours = path.join(work, 'ours');
const theirs = path.join(work, 'theirs');
// A runtime directory that does not exist, as a shell opened with su hands down:
// the resident brought up must still find a place for its lock.
const env = { ...process.env, HOME: path.join(work, 'user'), XDG_RUNTIME_DIR: path.join(work, 'gone') };
delete env.KESTRUNE_LOCAL;
delete env.ProgramData;
for (const d of [ours, theirs, env.HOME]) fs.mkdirSync(d, { recursive: true });
// Agents give up on a server that has not answered within about ten seconds.
const kPrompt = 5000;

const freePort = () => new Promise((resolve) => {
  const s = net.createServer().listen(0, '127.0.0.1', () => { const p = s.address().port; s.close(() => resolve(p)); });
});
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const token = (home) => fs.readFileSync(path.join(home, 'resident.token'), 'utf8').trim();
const port = await freePort();
const url = (p) => `http://127.0.0.1:${port}${p}`;
const started = [];

after(async () => {
  for (const pid of started) { try { process.kill(pid, 'SIGTERM'); } catch { /* gone */ } }
  await shutDown(ours).catch(() => {});
  await sleep(300);
  fs.rmSync(work, { recursive: true, force: true });
});

const healthy = async () => { try { return (await fetch(url('/health'))).ok; } catch { return false; } };
// The resident `kx mcp` brought up is not our child: it is asked to end with its token.
const shutDown = async (home) => {
  await fetch(url('/shutdown'), { method: 'POST', headers: { Authorization: `Bearer ${token(home)}`, 'X-Kst-Control': 'shutdown' } });
  for (let i = 0; i < 100 && await healthy(); i++) await sleep(50);
  assert.equal(await healthy(), false, 'the resident ended');
};

const stopLateResident = async (p) => {
  const at = `http://127.0.0.1:${p}`;
  const up = async () => { try { return (await fetch(`${at}/health`)).ok; } catch { return false; } };
  for (let i = 0; i < 30 && !await up(); i++) await sleep(100);
  if (!await up()) return;
  await fetch(`${at}/shutdown`, { method: 'POST', headers: { Authorization: `Bearer ${token(ours)}`, 'X-Kst-Control': 'shutdown' } });
  for (let i = 0; i < 100 && await up(); i++) await sleep(50);
};

const connect = async (home) => {
  const t0 = Date.now();
  const transport = new StdioClientTransport({ command: kx, args: ['--conf', home, '--port', String(port), 'mcp'], env, stderr: 'pipe' });
  let stderr = '';
  transport.stderr.on('data', (d) => { stderr += d; });
  const client = new Client({ name: 'kx-connect', version: '1.0.0' });
  await client.connect(transport);
  const took = Date.now() - t0;
  assert.ok(took < kPrompt, `initialize answered after ${took} ms`);
  return { client, stderr: () => stderr };
};
const call = async (client, name, args) => {
  const result = await client.callTool({ name, arguments: args });
  const text = result.content.map((c) => c.text).join('');
  assert.equal(result.isError, false, `${name}: ${text}`);
  return text;
};
// Does the resident on the port answer this home's token?
const servesHome = async (home) => (await fetch(url('/debug/stream'), { headers: { Authorization: `Bearer ${token(home)}` } })).status === 200;

test('no resident: kx mcp brings up one of its home and relays to it', async () => {
  assert.equal(await healthy(), false);
  const { client } = await connect(ours);
  try {
    await call(client, 'memory_add', { context: 'connect', topic: 'first', content: 'written with no resident up' });
  } finally { await client.close(); }
  assert.ok(await servesHome(ours), 'a resident of our home serves the port');
});

test('a resident of its home: kx mcp relays to it', async () => {
  const before = await (await fetch(url('/debug/stream'), { headers: { Authorization: `Bearer ${token(ours)}` } })).json();
  const { client } = await connect(ours);
  try {
    assert.match(await call(client, 'memory_retrieve', { context: 'connect', topic: 'first' }), /written with no resident up/);
  } finally { await client.close(); }
  const events = await (await fetch(url(`/debug/stream?since=${before.seq}`), { headers: { Authorization: `Bearer ${token(ours)}` } })).json();
  assert.ok(events.events.some((e) => e.event === 'mcp'), 'the messages reached the resident');
  await shutDown(ours);
});

test('a resident of another home: kx mcp serves its own home in process', async () => {
  // The resident just shut down may hold the port's lock a moment longer; boot
  // then steps aside, and is tried again.
  for (let i = 0; i < 100 && !await healthy(); i++) {
    if (i % 10 === 0) started.push(spawn(kx, ['--conf', theirs, '--port', String(port), 'boot'], { env, stdio: 'ignore' }).pid);
    await sleep(100);
  }
  assert.ok(await servesHome(theirs));

  const { client, stderr } = await connect(ours);
  try {
    assert.match(await call(client, 'memory_retrieve', { context: 'connect', topic: 'first' }), /written with no resident up/);
    await call(client, 'memory_add', { context: 'connect', topic: 'second', content: 'not for the other home' });
  } finally { await client.close(); }
  assert.match(stderr(), /port \d+ serves another home/);
  assert.equal(await servesHome(ours), false);
  // Nothing of ours reached the other home's resident.
  const theirClient = new Client({ name: 'kx-connect', version: '1.0.0' });
  await theirClient.connect(new StreamableHTTPClientTransport(new URL(url('/mcp')), { requestInit: { headers: { Authorization: `Bearer ${token(theirs)}` } } }));
  try {
    assert.match(await call(theirClient, 'memory_contexts', {}), /^OK: 0 context\(s\) under /);
  } finally { await theirClient.close(); }
});

test('a listener that never answers: the handshake is prompt, tools are served in process', async () => {
  const silent = net.createServer(() => { /* accepts and says nothing */ });
  await new Promise((r) => silent.listen(0, '127.0.0.1', r));
  const silentPort = silent.address().port;
  const args = ['--conf', ours, '--port', String(silentPort), 'mcp'];
  try {
    // Input that ends while kx is still finding out who holds the port ends kx at once.
    const raw = spawn(kx, args, { env, stdio: ['pipe', 'pipe', 'ignore'] });
    const exited = new Promise((r) => raw.on('exit', () => r(Date.now())));
    raw.stdin.write('{"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}}\n');
    const reply = await new Promise((r) => raw.stdout.once('data', (d) => r(JSON.parse(String(d)))));
    assert.equal(reply.result.protocolVersion, '2025-06-18');
    const t0 = Date.now();
    raw.stdin.end();
    assert.ok(await exited - t0 < 1000, 'ended within a second of its input');

    const transport = new StdioClientTransport({ command: kx, args, env, stderr: 'pipe' });
    let stderr = '';
    transport.stderr.on('data', (d) => { stderr += d; });
    const client = new Client({ name: 'kx-connect', version: '1.0.0' });
    const t1 = Date.now();
    await client.connect(transport);
    assert.ok(Date.now() - t1 < kPrompt, `initialize answered after ${Date.now() - t1} ms`);
    try {
      assert.match(await call(client, 'memory_retrieve', { context: 'connect', topic: 'second' }), /not for the other home/);
    } finally { await client.close(); }
    assert.match(stderr, /could not take over port/);
  } finally {
    silent.close();
    // The resident kx spawned keeps trying to bind, and takes the port once it is free.
    await stopLateResident(silentPort);
  }
});

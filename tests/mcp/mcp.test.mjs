// The MCP server against the official SDK client, over stdio (in process and relayed
// to a resident) and over Streamable HTTP:
//   KX=<path to kx> node --test tests/mcp/mcp.test.mjs
import { test, before, after } from 'node:test';
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
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'kx-mcp-e2e-'));
const home = path.join(work, 'home');
const env = { ...process.env, HOME: path.join(work, 'user'), XDG_RUNTIME_DIR: path.join(work, 'run') };
delete env.KESTRUNE_LOCAL;
delete env.ProgramData;
const started = [];
let port;

const freePort = () => new Promise((resolve) => {
  const s = net.createServer().listen(0, '127.0.0.1', () => { const p = s.address().port; s.close(() => resolve(p)); });
});
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const token = () => { try { return fs.readFileSync(path.join(home, 'resident.token'), 'utf8').trim(); } catch { return ''; } };
const authHeaders = () => (token() ? { Authorization: `Bearer ${token()}` } : {});
const url = (p) => `http://127.0.0.1:${port}${p}`;
const alive = (pid) => {
  try { return !fs.readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].startsWith('Z'); } catch { return false; }
};

before(async () => {
  for (const d of [home, env.HOME, env.XDG_RUNTIME_DIR]) fs.mkdirSync(d, { recursive: true });
  port = await freePort();
  const resident = spawn(kx, ['--conf', home, '--port', String(port), 'boot'], { env, stdio: 'ignore' });
  started.push(resident.pid);
  for (let i = 0; i < 100; i++) {
    try { if ((await fetch(url('/health'))).ok) return; } catch { /* not yet */ }
    await sleep(100);
  }
  throw new Error('the resident did not come up');
});

after(async () => {
  for (const pid of started) { try { process.kill(pid, 'SIGTERM'); } catch { /* gone */ } }
  // A resident still writing its home as it stops would race the removal.
  for (let i = 0; i < 100 && started.some(alive); i++) await sleep(50);
  fs.rmSync(work, { recursive: true, force: true });
});

const stdioClient = async (local) => {
  const transport = new StdioClientTransport({
    command: kx,
    args: ['--conf', home, '--port', String(port), 'mcp'],
    env: local ? { ...env, KESTRUNE_LOCAL: '1' } : env,
    stderr: 'pipe',
  });
  const client = new Client({ name: 'kx-e2e', version: '1.0.0' });
  await client.connect(transport);
  return client;
};
const httpClient = async () => {
  const transport = new StreamableHTTPClientTransport(new URL(url('/mcp')), { requestInit: { headers: authHeaders() } });
  const client = new Client({ name: 'kx-e2e', version: '1.0.0' });
  await client.connect(transport);
  return client;
};

const text = (result) => result.content.map((c) => c.text).join('');
const call = async (client, name, args = {}) => {
  const result = await client.callTool({ name, arguments: args });
  return { text: text(result), isError: result.isError };
};
const ok = async (client, name, args) => {
  const r = await call(client, name, args);
  assert.equal(r.isError, false, `${name}: ${r.text}`);
  return r.text;
};

// The same session on every transport, each on a directory and a memory context of its own.
const exercise = async (client, label) => {
  assert.equal(client.getServerVersion().name, 'Kestrune-mcp');
  assert.ok(client.getInstructions().startsWith('Kestrune — an LLM-native workspace with THREE storage classes.'));
  assert.ok(Buffer.byteLength(client.getInstructions()) < 2048);

  const { tools } = await client.listTools();
  for (const tool of tools) {
    assert.match(tool.name, /^[a-zA-Z0-9_-]{1,64}$/);
    assert.ok(tool.title && tool.annotations, `${tool.name} has a title and annotations`);
    assert.equal(tool.outputSchema, undefined);
  }
  const byName = Object.fromEntries(tools.map((t) => [t.name, t]));
  for (const name of ['kst_run', 'fs_read', 'fs_edit', 'grep', 'vc_log', 'memory_add', 'chat_say', 'claude_doctor'])
    assert.ok(byName[name], `tools/list has ${name}`);
  assert.equal(byName.fs_read.annotations.readOnlyHint, true);
  assert.equal(byName.fs_write.annotations.destructiveHint, false);

  // Files: a store of its own, a write, an edit, the history, the bytes on disk.
  const dir = path.join(work, `project-${label}`);
  fs.mkdirSync(dir);
  await ok(client, 'kst_enroll', { directory: dir });
  await ok(client, 'fs_write', { path: 'notes.txt', content: 'alpha\r\nbeta   \r\ngamma\r\n' });
  assert.equal(await ok(client, 'fs_read', { path: 'notes.txt', offset: 2, limit: 1 }), 'beta   \r\n');
  const edited = await ok(client, 'fs_edit', { path: 'notes.txt', old_text: 'beta\ngamma', new_text: 'BETA\nGAMMA' });
  assert.match(edited, /@@ line 2\n-beta\n-gamma\n\+BETA\n\+GAMMA/);
  assert.equal(fs.readFileSync(path.join(dir, 'notes.txt'), 'utf8'), 'alpha\r\nBETA\r\nGAMMA\r\n');
  const twice = await call(client, 'fs_edit', { path: 'notes.txt', old_text: 'A', new_text: 'a' });
  assert.equal(twice.isError, true);
  assert.match(twice.text, /occurs 3 times \(lines 2, 3\)/);
  assert.match(await ok(client, 'vc.log', { path: 'notes.txt' }), /v2|2/);
  assert.match(await ok(client, 'fs.read', { path: 'notes.txt' }), /GAMMA/);
  assert.match(await ok(client, 'grep', { pattern: 'GAM+A', flags: '-n', path: dir }), /notes\.txt:3:GAMMA/);

  // Memory: a context of its own, written and read back.
  const context = `ctx-${label}`;
  await ok(client, 'memory_add', { context, topic: 'build', content: `use ninja, says ${label}` });
  assert.match(await ok(client, 'memory.retrieve', { context, topic: 'build' }), new RegExp(`says ${label}`));
  assert.match(await ok(client, 'memory_contexts'), new RegExp(context));

  // Chat: the resident's hub; a session without a resident says why it has none.
  const room = `room-${label}`;
  const said = await call(client, 'chat_say', { channel: room, text: `hello from ${label}` });
  if (label === 'local') {
    assert.equal(said.isError, true);
    assert.match(said.text, /^ERROR: chat lives in the resident/);
    assert.match((await call(client, 'chat_read', { channel: room })).text, /^ERROR: chat lives in the resident/);
  } else {
    assert.equal(said.isError, false, said.text);
    assert.match(said.text, /^OK: posted to channel 'room-\w+' as message \d+/);
    const latest = JSON.parse(await ok(client, 'chat_read', { channel: room }));
    assert.deepEqual(latest.messages.map((m) => [m.from, m.text]), [['agent', `hello from ${label}`]]);
    // A read that waits is answered by a post arriving from another path.
    const waiting = ok(client, 'chat.read', { channel: room, since: latest.since });
    await sleep(400);
    const posted = await fetch(url('/chat/say'), {
      method: 'POST', headers: authHeaders(), body: new URLSearchParams({ channel: room, from: 'person', text: 'from the panel' }),
    });
    assert.equal(posted.status, 200);
    const next = JSON.parse(await waiting);
    assert.deepEqual(next.messages.map((m) => [m.from, m.text]), [['person', 'from the panel']]);
    assert.ok(next.since > latest.since);
    assert.equal((await call(client, 'chat_read', { channel: '../etc' })).isError, true);
  }

  // Errors a tool answers as results, not as protocol errors.
  const unknown = await call(client, 'no_such_tool');
  assert.equal(unknown.isError, true);
  assert.match(unknown.text, /^ERROR: unknown tool 'no_such_tool'/);

  // Resources, prompts, completion.
  const { resources } = await client.listResources();
  const fileUri = resources.find((r) => r.uri === 'kst:///file/notes.txt');
  assert.ok(fileUri, 'resources/list names the file');
  assert.ok(resources.find((r) => r.uri === `kst:///ctx/${context}`));
  const read = await client.readResource({ uri: 'kst:///file/notes.txt' });
  assert.match(read.contents[0].text, /GAMMA/);
  const { resourceTemplates } = await client.listResourceTemplates();
  assert.ok(resourceTemplates.every((t) => t.uriTemplate.startsWith('kst:///')));
  const { prompts } = await client.listPrompts();
  assert.ok(prompts.find((p) => p.name === 'kst_manual'));
  const manual = await client.getPrompt({ name: 'kst.manual' });
  assert.ok(manual.messages[0].content.text.length > 100);
  const completion = await client.complete({
    ref: { type: 'ref/resource', uri: 'kst:///ctx/{context}' },
    argument: { name: 'context', value: 'ctx-' },
  });
  assert.ok(completion.completion.values.includes(context));
  await assert.rejects(client.readResource({ uri: 'kst:///nowhere' }), /unknown resource uri/);
};

test('stdio, served in process', async () => {
  const client = await stdioClient(true);
  try { await exercise(client, 'local'); } finally { await client.close(); }
});

test('stdio, relayed to the resident', async () => {
  const before = await (await fetch(url('/debug/stream'), { headers: authHeaders() })).json();
  const client = await stdioClient(false);
  try { await exercise(client, 'relayed'); } finally { await client.close(); }
  const events = await (await fetch(url(`/debug/stream?since=${before.seq}`), { headers: authHeaders() })).json();
  assert.ok(events.events.some((e) => e.event === 'mcp'), 'the messages reached the resident');
});

test('Streamable HTTP', async () => {
  const client = await httpClient();
  try { await exercise(client, 'http'); } finally { await client.close(); }
});

// Raw messages on one stdio session; answers keyed by id.
const rawStdio = async (lines) => {
  const child = spawn(kx, ['--conf', home, 'mcp'], { env: { ...env, KESTRUNE_LOCAL: '1' } });
  let out = '';
  child.stdout.on('data', (d) => { out += d; });
  child.stdin.end(lines.join(''));
  const status = await new Promise((r) => child.on('exit', r));
  return { status, out };
};

test('stdio: versions, errors, notifications, blank lines', async () => {
  const versions = ['2025-11-25', '2025-06-18', '2025-03-26', '2024-11-05', '1999-01-01'];
  const init = (v, id) => `${JSON.stringify({ jsonrpc: '2.0', id, method: 'initialize', params: { protocolVersion: v, capabilities: {}, clientInfo: { name: 't', version: '1' } } })}\n`;
  const { status, out } = await rawStdio([
    ...versions.map((v, i) => init(v, i + 1)),
    '{"jsonrpc":"2.0","method":"notifications/initialized"}\n',
    '\r\n',
    '{not json\n',
    '{"jsonrpc":"2.0","id":"d","method":"server/discover"}\n',
    '{"jsonrpc":"2.0","id":"m","params":{}}\n',
    '{"jsonrpc":"2.0","id":"p","method":"ping"}',  // the last line may lack its line feed
  ]);
  assert.equal(status, 0);
  const replies = out.trimEnd().split('\n').map((l) => JSON.parse(l));
  assert.equal(replies.length, versions.length + 4, 'no reply to the notification or the blank line');
  assert.deepEqual(replies.slice(0, 5).map((r) => r.result.protocolVersion),
    ['2025-11-25', '2025-06-18', '2025-03-26', '2024-11-05', '2025-11-25']);
  const [parse, discover, missing, ping] = replies.slice(5);
  assert.deepEqual(parse, { jsonrpc: '2.0', id: null, error: { code: -32700, message: 'parse error' } });
  assert.equal(discover.error.code, -32601);
  assert.deepEqual(missing.error, { code: -32600, message: 'invalid request: missing method' });
  assert.deepEqual(ping, { jsonrpc: '2.0', id: 'p', result: {} });
});

test('HTTP: status codes and headers', async () => {
  const post = (body, headers = {}) => fetch(url('/mcp'), {
    method: 'POST', body, headers: { 'Content-Type': 'application/json', ...authHeaders(), ...headers },
  });
  const note = await post('{"jsonrpc":"2.0","method":"notifications/initialized"}');
  assert.equal(note.status, 202);
  assert.equal(await note.text(), '');
  const response = await post('{"jsonrpc":"2.0","id":7,"result":{}}');
  assert.equal(response.status, 202);
  const unknown = await post('{"jsonrpc":"2.0","id":1,"method":"no/such"}');
  assert.equal(unknown.status, 200);
  assert.equal((await unknown.json()).error.code, -32601);
  const bad = await post('[', {});
  assert.equal(bad.status, 200);
  assert.equal((await bad.json()).error.code, -32700);
  assert.equal((await post('{"jsonrpc":"2.0","id":1,"method":"ping"}', { 'MCP-Protocol-Version': '2030-01-01' })).status, 400);
  const rpc = await fetch(url('/rpc'), { method: 'POST', headers: authHeaders(), body: '{"jsonrpc":"2.0","id":1,"method":"tools/list"}' });
  const tools = (await rpc.json()).result.tools;
  assert.ok(tools.length > 20);
  // Sessions: initialize hands out an id; DELETE ends it (behind the token), after which
  // the id is refused so the client initializes again.
  const init = await post(JSON.stringify({
    jsonrpc: '2.0', id: 1, method: 'initialize',
    params: { protocolVersion: '2025-06-18', capabilities: {}, clientInfo: { name: 'raw', version: '1' } },
  }));
  const session = init.headers.get('mcp-session-id');
  assert.match(session, /^[0-9a-f]{32}$/);
  const ping = '{"jsonrpc":"2.0","id":2,"method":"ping"}';
  assert.equal((await post(ping, { 'Mcp-Session-Id': session })).status, 200);
  const end = (headers) => fetch(url('/mcp'), { method: 'DELETE', headers });
  assert.equal((await end({ 'Mcp-Session-Id': session })).status, 401);
  assert.equal((await end({ ...authHeaders(), 'Mcp-Session-Id': session })).status, 200);
  assert.equal((await post(ping, { 'Mcp-Session-Id': session })).status, 404);
  assert.equal((await end({ ...authHeaders(), 'Mcp-Session-Id': session })).status, 404);
  assert.equal((await end(authHeaders())).status, 400);
  assert.equal((await post(ping)).status, 200);
  const stream = await fetch(url('/mcp'), { headers: { Accept: 'text/event-stream', ...authHeaders() } });
  assert.equal(stream.status, 405);
  const plain = await fetch(url('/mcp'), { headers: authHeaders() });
  assert.match(await plain.text(), /^Kestrune MCP server — POST JSON-RPC 2.0 to \/mcp/);
});

test('kx mcp ends within a second of its parent being killed', async () => {
  // The parent shell hands kx a copy of our pipe, so only the parent's death can end it.
  const parent = spawn('sh', ['-c', 'exec 3<&0; "$KX" --conf "$H" mcp <&3 & echo $!; wait'],
    { env: { ...env, KESTRUNE_LOCAL: '1', KX: kx, H: home }, stdio: ['pipe', 'pipe', 'inherit'] });
  const pid = Number(await new Promise((r) => parent.stdout.once('data', (d) => r(String(d).trim()))));
  parent.stdin.write('{"jsonrpc":"2.0","id":1,"method":"ping"}\n');
  await sleep(300);
  assert.ok(alive(pid), 'kx mcp runs while its parent does');
  process.kill(parent.pid, 'SIGKILL');
  const t0 = Date.now();
  while (alive(pid) && Date.now() - t0 < 3000) await sleep(20);
  const took = Date.now() - t0;
  parent.stdin.destroy();
  if (alive(pid)) process.kill(pid, 'SIGKILL');
  assert.ok(took < 1000, `ended after ${took} ms`);
});

// tools/call of fs_read on a 4 KiB file through the official SDK client, over stdio
// (in process and relayed to a resident) and over Streamable HTTP, plus the size of
// tools/list; the anchor is the SDK's own stdio server reading the same file
// (bench/mcp_anchor_server.mjs). Needs tests/node_modules (bash tests/setup_node.sh).
//   node bench/mcp_bench.mjs <path to kx> [calls]
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath, pathToFileURL } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
const sdk = (p) => import(pathToFileURL(path.join(here, '..', 'tests', 'node_modules', '@modelcontextprotocol', 'sdk', 'dist', 'esm', p)).href);
const { Client } = await sdk('client/index.js');
const { StdioClientTransport } = await sdk('client/stdio.js');
const { StreamableHTTPClientTransport } = await sdk('client/streamableHttp.js');

const kx = path.resolve(process.argv[2] ?? 'build/src/launcher/kx');
const calls = Number(process.argv[3] ?? 1000);
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'kx-mcp-bench-'));
const home = path.join(work, 'home');
const project = path.join(work, 'project');
fs.mkdirSync(home);
fs.mkdirSync(project);
fs.writeFileSync(path.join(project, 'four.txt'), `${'x'.repeat(63)}\n`.repeat(64));
const env = { ...process.env, HOME: work, XDG_RUNTIME_DIR: work };
delete env.KESTRUNE_LOCAL;

const port = await new Promise((resolve) => {
  const s = net.createServer().listen(0, '127.0.0.1', () => { const p = s.address().port; s.close(() => resolve(p)); });
});
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const token = () => { try { return fs.readFileSync(path.join(home, 'resident.token'), 'utf8').trim(); } catch { return ''; } };

const resident = spawn(kx, ['--conf', home, '--port', String(port), 'boot'], { env, stdio: 'ignore' });
for (let i = 0; i < 100; i++) {
  try { if ((await fetch(`http://127.0.0.1:${port}/health`)).ok) break; } catch { /* not yet */ }
  await sleep(100);
}

const measure = async (label, transport) => {
  const client = new Client({ name: 'kx-bench', version: '1.0.0' });
  await client.connect(transport);
  await client.callTool({ name: 'kst_enroll', arguments: { directory: project } });
  const first = await client.callTool({ name: 'fs_read', arguments: { path: 'four.txt' } });
  if (first.isError || first.content[0].text.length !== 4096) throw new Error(`${label}: ${first.content[0].text}`);
  const times = [];
  for (let i = 0; i < calls; i++) {
    const t0 = process.hrtime.bigint();
    await client.callTool({ name: 'fs_read', arguments: { path: 'four.txt' } });
    times.push(Number(process.hrtime.bigint() - t0) / 1e6);
  }
  const listed = await client.listTools();
  await client.close();
  times.sort((a, b) => a - b);
  const at = (q) => times[Math.min(times.length - 1, Math.floor(q * times.length))].toFixed(3);
  console.log(`${label.padEnd(22)} fs_read 4 KiB x${calls}: p50 ${at(0.5)} ms  p99 ${at(0.99)} ms`);
  return listed;
};

const stdio = (local) => new StdioClientTransport({
  command: kx, args: ['--conf', home, '--port', String(port), 'mcp'],
  env: local ? { ...env, KESTRUNE_LOCAL: '1' } : env, stderr: 'ignore',
});
try {
  await measure('anchor: SDK server', new StdioClientTransport({
    command: process.execPath, args: [path.join(here, 'mcp_anchor_server.mjs'), project], stderr: 'ignore',
  }));
  await measure('stdio, in process', stdio(true));
  await measure('stdio, relayed', stdio(false));
  await measure('Streamable HTTP', new StreamableHTTPClientTransport(new URL(`http://127.0.0.1:${port}/mcp`),
    { requestInit: { headers: token() ? { Authorization: `Bearer ${token()}` } : {} } }));
  const raw = await fetch(`http://127.0.0.1:${port}/mcp`, {
    method: 'POST', body: '{"jsonrpc":"2.0","id":1,"method":"tools/list"}',
    headers: { 'Content-Type': 'application/json', ...(token() ? { Authorization: `Bearer ${token()}` } : {}) },
  });
  const body = await raw.text();
  console.log(`tools/list reply: ${Buffer.byteLength(body)} bytes, ${JSON.parse(body).result.tools.length} tools`);
} finally {
  resident.kill('SIGTERM');
  await sleep(300);
  fs.rmSync(work, { recursive: true, force: true });
}

// The coding agents' own command-line tools see kx after `kx claude-setup`: in a
// temporary home, offline, with no login, on a free port so no real resident is touched.
//   KX=<path to kx> node --test tests/agents/agents.test.mjs
// The tools come from tests/agents/setup.sh (installed once per lock file).
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';

const kx = process.env.KX;
const bin = execFileSync('bash', [path.join(import.meta.dirname, 'setup.sh')], { encoding: 'utf8' }).trim().split('\n').pop();
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'kx-agents-'));
const user = path.join(work, 'user');
const project = path.join(work, 'project');
const env = {
  ...process.env,
  HOME: user,
  XDG_CONFIG_HOME: path.join(user, '.config'),
  XDG_RUNTIME_DIR: path.join(work, 'run'),
  PATH: `${bin}:${process.env.PATH}`,
  // No update checks from a test.
  DISABLE_AUTOUPDATER: '1',
};
// Listing servers must need no account.
for (const key of ['KESTRUNE_LOCAL', 'ProgramData', 'ANTHROPIC_API_KEY', 'OPENAI_API_KEY', 'CODEX_API_KEY', 'GEMINI_API_KEY', 'GOOGLE_API_KEY'])
  delete env[key];

const freePort = () => new Promise((resolve) => {
  const s = net.createServer().listen(0, '127.0.0.1', () => { const p = s.address().port; s.close(() => resolve(p)); });
});
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));
const escape = (text) => text.replace(/[.*+?^${}()|[\]\\]/g, '\\$&');
const run = (command, args) => {
  const r = spawnSync(command, args, { cwd: project, env, encoding: 'utf8', timeout: 120000 });
  return { status: r.status, out: r.stdout ?? '', err: r.stderr ?? '' };
};
const ports = [];

before(async () => {
  for (const d of [user, project, env.XDG_RUNTIME_DIR]) fs.mkdirSync(d, { recursive: true });
  ports.push(await freePort(), await freePort());
});

// `mcp list` started `kx mcp`, which brought up a resident of the temporary home on
// each port the registration named; they are not our children, so they are asked
// to end with the home's token.
after(async () => {
  let token = '';
  try { token = fs.readFileSync(path.join(user, '.Kestrune', 'resident.token'), 'utf8').trim(); } catch { /* none came up */ }
  for (const port of ports) {
    const url = `http://127.0.0.1:${port}`;
    try {
      await fetch(`${url}/shutdown`, { method: 'POST', headers: { Authorization: `Bearer ${token}`, 'X-Kst-Control': 'shutdown' } });
      for (let i = 0; i < 100; i++) { await fetch(`${url}/health`); await sleep(50); }
    } catch { /* ended */ }
  }
  fs.rmSync(work, { recursive: true, force: true });
});

test('after kx claude-setup, claude, codex and gemini list kx, and claude connects to it', () => {
  // A registration for another port is replaced, not added beside or refused.
  const [old, port] = ports;
  assert.equal(run(kx, ['--port', String(old), 'claude-setup']).status, 0);
  const setup = run(kx, ['--port', String(port), 'claude-setup']);
  assert.equal(setup.status, 0, setup.err);
  for (const agent of ['claude', 'codex', 'gemini'])
    assert.match(setup.err, new RegExp(`${agent} MCP registration \\(${agent} mcp add\\): registered`));

  // Each agent's own file names this kx, with the port.
  const args = ['--port', String(port), 'mcp'];
  const claudeEntry = JSON.parse(fs.readFileSync(path.join(user, '.claude.json'), 'utf8')).mcpServers.kx;
  assert.equal(claudeEntry.command, kx);
  assert.deepEqual(claudeEntry.args, args);
  const codex = fs.readFileSync(path.join(user, '.codex', 'config.toml'), 'utf8');
  assert.match(codex, new RegExp(`\\[mcp_servers\\.kx\\]\\ncommand = "${escape(kx)}"\\nargs = \\["--port", "${port}", "mcp"\\]`));
  assert.equal(codex.match(/\[mcp_servers\.kx\]/g).length, 1);
  const geminiEntry = JSON.parse(fs.readFileSync(path.join(user, '.gemini', 'settings.json'), 'utf8')).mcpServers.kx;
  assert.equal(geminiEntry.command, kx);
  assert.deepEqual(geminiEntry.args, args);

  const line = `${escape(kx)} --port ${port} mcp`;
  const claude = run('claude', ['mcp', 'list']);
  assert.equal(claude.status, 0, claude.err);
  assert.match(claude.out, new RegExp(`^kx: ${line} - ✔ Connected$`, 'm'));
  const codexList = run('codex', ['mcp', 'list']);
  assert.equal(codexList.status, 0, codexList.err);
  assert.match(codexList.out, new RegExp(`^kx +${escape(kx)} +--port ${port} mcp +.* enabled `, 'm'));
  // Gemini starts no server in a folder its user has not trusted; this user trusts the project.
  fs.writeFileSync(path.join(user, '.gemini', 'trustedFolders.json'), JSON.stringify({ [project]: 'TRUST_FOLDER' }));
  const gemini = run('gemini', ['mcp', 'list']);
  assert.equal(gemini.status, 0, gemini.err);
  // It prints the list on standard error.
  assert.match(gemini.out + gemini.err, new RegExp(`^✓ kx: ${line} \\(stdio\\) - Connected$`, 'm'));

  const again = run(kx, ['--port', String(port), 'claude-setup']);
  assert.equal(again.status, 0, again.err);
  assert.match(again.out, /MCP \(stdio\): unchanged;/);
});

// kx claude-setup in a temporary home that already holds agents' configuration
// files with other servers, comments and odd formatting:
//   KX=<path to kx> node --test tests/mcp/agent_setup.test.mjs
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

const kx = process.env.KX;
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'kx-agent-setup-'));
const user = path.join(work, 'user');
const project = path.join(work, 'project');
const env = { ...process.env, HOME: user, XDG_CONFIG_HOME: path.join(user, '.config'), KESTRUNE_LOCAL: '1', PATH: '/usr/bin:/bin' };
const files = {
  codex: path.join(user, '.codex', 'config.toml'),
  gemini: path.join(user, '.gemini', 'settings.json'),
  vscode: path.join(project, '.vscode', 'mcp.json'),
  claudeSettings: path.join(user, '.claude', 'settings.json'),
};
const before = {
  codex: '# mine\nmodel = "o3"   # favourite\n\n[mcp_servers.other]\ncommand = "other"\nargs = ["--x", \'lit\']\n',
  gemini: '{\n    // my servers\n    "mcpServers": {\n        "other": {"command": "o"},\n    },\n    "theme": "dark"\n}\n',
  vscode: '{\n  "servers": {\n    "a": {"type":"stdio","command":"a"}\n  },\n}\n',
  claudeSettings: '{"hooks": {"SessionStart": [{"hooks": [{"type": "command", "command": "echo hi"}]}]}}',
};
for (const [k, f] of Object.entries(files)) { fs.mkdirSync(path.dirname(f), { recursive: true }); fs.writeFileSync(f, before[k]); }

const setup = () => spawnSync(kx, ['claude-setup'], { cwd: project, env, encoding: 'utf8' });
const withoutKx = (text) => text.replace(/\n\[mcp_servers\.kx\]\ncommand = "[^"]*"\nargs = \["mcp"\]\n/, '');

test('set-up adds only the kx entries, keeps every other byte, and a second run is unchanged', () => {
  const first = setup();
  assert.equal(first.status, 0, first.stderr);
  assert.match(first.stdout, /^\[claude-setup\] skills: ok; global CLAUDE.md: ok; MCP \(stdio\): ok; boot: ok; sessionstart: ok\n$/);
  const codex = fs.readFileSync(files.codex, 'utf8');
  assert.ok(codex.startsWith(before.codex), 'the codex file keeps its bytes');
  assert.equal(withoutKx(codex), before.codex.replace(/\n$/, '') + '\n');
  assert.match(codex, new RegExp(`\\[mcp_servers\\.kx\\]\\ncommand = "${kx}"`));
  const gemini = fs.readFileSync(files.gemini, 'utf8');
  assert.match(gemini, /\/\/ my servers/);
  assert.match(gemini, /"other": \{"command": "o"\},\n    \},\n    "theme": "dark"/);
  assert.match(gemini, new RegExp(`"kx": \\{"args":\\["mcp"\\],"command":"${kx}"\\}`));
  assert.match(fs.readFileSync(files.vscode, 'utf8'), /"kx": \{"args":\["mcp"\],"command":"[^"]+","type":"stdio"\},\n    "a":/);
  const hooks = JSON.parse(fs.readFileSync(files.claudeSettings, 'utf8')).hooks.SessionStart;
  assert.equal(hooks[0].hooks[0].command, 'echo hi', 'the user\'s own hook stays first');
  assert.match(hooks[1].hooks[0].command, /claude\.brief$/);
  assert.match(fs.readFileSync(path.join(user, '.claude', 'CLAUDE.md'), 'utf8'), /kestrune:begin[\s\S]*fs_edit[\s\S]*kestrune:end/);
  assert.ok(fs.existsSync(path.join(user, '.claude', 'skills', 'kestrune', 'SKILL.md')));
  assert.equal(JSON.parse(fs.readFileSync(path.join(project, '.mcp.json'), 'utf8')).mcpServers.kx.args[0], 'mcp');
  assert.equal(fs.readFileSync(`${files.gemini}.kx-backup`, 'utf8'), before.gemini);

  const snapshot = Object.fromEntries(Object.entries(files).map(([k, f]) => [k, fs.readFileSync(f, 'utf8')]));
  const second = setup();
  assert.equal(second.status, 0);
  assert.equal(second.stdout, '[claude-setup] skills: unchanged; global CLAUDE.md: unchanged; MCP (stdio): unchanged; boot: unchanged; sessionstart: unchanged\n');
  for (const [k, f] of Object.entries(files)) assert.equal(fs.readFileSync(f, 'utf8'), snapshot[k], `${k} untouched`);
});

test('a file that does not parse is refused and left as it was', () => {
  const broken = '{\n  "mcpServers": { "other": {"command": "o"} \n';  // no closing braces
  fs.writeFileSync(files.gemini, broken);
  fs.writeFileSync(files.codex, '[mcp_servers.other]\ncommand = "unterminated\n');
  const run = setup();
  assert.notEqual(run.status, 0);
  assert.match(run.stderr, /gemini MCP registration .*refused, left untouched/);
  assert.match(run.stderr, /codex MCP registration .*refused, left untouched/);
  assert.equal(fs.readFileSync(files.gemini, 'utf8'), broken);
  assert.match(run.stdout, /MCP \(stdio\): FAILED/);
});

test('claude.show and claude.status answer through the interpreter', () => {
  const show = spawnSync(kx, ['--conf', path.join(work, 'home'), 'claude.show', 'mcp'], { cwd: project, env, encoding: 'utf8' });
  assert.equal(JSON.parse(show.stdout).command, kx);
  const status = spawnSync(kx, ['--conf', path.join(work, 'home'), 'claude.status'], { cwd: project, env, encoding: 'utf8' });
  assert.match(status.stdout, /vscode: no command; .*mcp\.json: kx -> /);
  fs.rmSync(work, { recursive: true, force: true });
});

test('set-up honours a home given with --conf and a port: the agents start kx with both', () => {
  const other = fs.mkdtempSync(path.join(os.tmpdir(), 'kx-agent-setup-conf-'));
  const otherUser = path.join(other, 'user');
  fs.mkdirSync(path.join(otherUser, '.gemini'), { recursive: true });
  const home = path.join(other, 'home');
  const run = spawnSync(kx, ['--conf', home, '--port', '7123', 'claude-setup'], {
    cwd: other, env: { ...env, HOME: otherUser, XDG_CONFIG_HOME: path.join(otherUser, '.config') }, encoding: 'utf8',
  });
  assert.equal(run.status, 0, run.stdout + run.stderr);
  assert.doesNotMatch(run.stdout + run.stderr, /parse error/);
  assert.ok(fs.existsSync(path.join(otherUser, '.claude', 'CLAUDE.md')));
  const args = ['--conf', home, '--port', '7123', 'mcp'];
  assert.deepEqual(JSON.parse(fs.readFileSync(path.join(other, '.mcp.json'), 'utf8')).mcpServers.kx.args, args);
  assert.deepEqual(JSON.parse(fs.readFileSync(path.join(otherUser, '.gemini', 'settings.json'), 'utf8')).mcpServers.kx.args, args);
  const hooks = JSON.parse(fs.readFileSync(path.join(otherUser, '.claude', 'settings.json'), 'utf8')).hooks.SessionStart;
  assert.equal(hooks[0].hooks[0].command, `"${kx}" --conf ${home} --port 7123 claude.brief`);
  fs.rmSync(other, { recursive: true, force: true });
});

// A resident of our own for a Node test: temporary home, free port, ended by pid.
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';

export const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

const freePort = () => new Promise((resolve) => {
  const s = net.createServer().listen(0, '127.0.0.1', () => { const p = s.address().port; s.close(() => resolve(p)); });
});

export async function startResident(kx) {
  const work = fs.mkdtempSync(path.join(os.tmpdir(), 'kx-term-e2e-'));
  const home = path.join(work, 'home');
  fs.mkdirSync(path.join(work, 'user'), { recursive: true });
  const port = await freePort();
  const child = spawn(kx, ['boot', '--port', String(port), '--conf', home], {
    env: { ...process.env, HOME: path.join(work, 'user'), XDG_RUNTIME_DIR: work, SHELL: '/bin/bash' },
    stdio: 'ignore',
  });
  const base = `http://127.0.0.1:${port}`;
  for (let i = 0; i < 100; i++) {
    try { if ((await fetch(base + '/health')).ok) break; } catch { /* not up yet */ }
    await sleep(100);
  }
  // The resident writes its home's token at boot; every private route needs it.
  const token = fs.readFileSync(path.join(home, 'resident.token'), 'utf8').trim();
  const headers = { Authorization: `Bearer ${token}` };
  return {
    port, base, token, work, pid: child.pid,
    async api(method, target) {
      const answer = await fetch(base + target, { method, headers });
      return answer.json();
    },
    wsUrl(target) { return `ws://127.0.0.1:${port}${target}${target.includes('?') ? '&' : '?'}token=${token}`; },
    stop() {
      child.kill('SIGTERM');
      fs.rmSync(work, { recursive: true, force: true });
    },
  };
}

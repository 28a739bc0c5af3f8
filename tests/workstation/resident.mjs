// A resident on a free port and a temporary home, for the page's tests. It sends
// the home's token when the home has one, so the tests hold once the token check
// guards every private route.
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import net from 'node:net';
import path from 'node:path';

const freePort = () => new Promise((resolve) => {
  const s = net.createServer().listen(0, '127.0.0.1', () => { const p = s.address().port; s.close(() => resolve(p)); });
});
const sleep = (ms) => new Promise((r) => setTimeout(r, ms));

export async function startResident(kx, work) {
  const home = path.join(work, 'home');
  const env = { ...process.env, HOME: path.join(work, 'user'), XDG_RUNTIME_DIR: work };
  delete env.KESTRUNE_LOCAL;
  delete env.ProgramData;
  fs.mkdirSync(env.HOME, { recursive: true });
  const port = await freePort();
  const child = spawn(kx, ['boot', '--port', String(port), '--conf', home], { env, stdio: 'ignore' });
  const base = `http://127.0.0.1:${port}`;
  for (let i = 0; i < 100; i++) {
    try { if ((await fetch(`${base}/health`)).ok) break; } catch { /* not up yet */ }
    await sleep(100);
  }
  const token = () => {
    try { return fs.readFileSync(path.join(home, 'resident.token'), 'utf8').trim(); } catch { return ''; }
  };
  return {
    child, port, home, env, base,
    // The first visit carries the token, which the resident turns into its cookie.
    pageUrl: (p) => (token() ? `${base}/ui/?token=${token()}${p.replace(/^\/ui\/?/, '')}` : base + p),
    headers: () => (token() ? { Authorization: `Bearer ${token()}` } : {}),
  };
}

export async function stopResident(resident) {
  if (!resident) return;
  resident.child.kill('SIGTERM');
  for (let i = 0; i < 30 && resident.child.exitCode === null; i++) await sleep(100);
  if (resident.child.exitCode === null) resident.child.kill('SIGKILL');
}

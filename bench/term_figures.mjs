// Terminal figures against a real resident (loopback only, stops by itself):
//   node bench/term_figures.mjs <path to kx> [MB for the throughput run, default 50]
// 1. keystroke-to-echo latency, p50/p99 over 500 keys: WebSocket vs /term/read polling
// 2. cat of a text file through a session to an attached client, MB/s, next to tmux
// 3. memory (resident RSS) and idle CPU of 50 idle sessions
import { createRequire } from 'node:module';
import { execFileSync, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { startResident, sleep } from '../tests/term/resident.mjs';

const WebSocket = createRequire(new URL('../tests/package.json', import.meta.url))('ws');
const kx = path.resolve(process.argv[2]);
const megabytes = Number(process.argv[3] || 50);
const r = await startResident(kx);
const pct = (xs, p) => { const s = [...xs].sort((a, b) => a - b); return s[Math.min(s.length - 1, Math.floor(s.length * p))]; };
const open = async (cmd) => (await r.api('POST', '/term/open?cmd=' + encodeURIComponent(cmd))).id;
const attach = (id) => new Promise((resolve) => {
  const ws = new WebSocket(r.wsUrl(`/term/ws?id=${id}&from=0`));
  ws.on('open', () => resolve(ws));
});

try {
  // --- 1. latency: one key into `cat` (echoed by the terminal) until it comes back
  const id = await open('cat');
  const ws = await attach(id);
  await sleep(300);
  const viaWs = [];
  for (let i = 0; i < 500; i++) {
    const key = String.fromCharCode(97 + (i % 26));
    const t0 = process.hrtime.bigint();
    await new Promise((resolve) => {
      const on = (data, binary) => { if (binary && data.includes(key)) { ws.off('message', on); resolve(); } };
      ws.on('message', on);
      ws.send(key);
    });
    viaWs.push(Number(process.hrtime.bigint() - t0) / 1e6);
  }
  ws.close();
  const viaPoll = [];
  let since = (await r.api('GET', `/term/read?id=${id}`)).len;
  for (let i = 0; i < 500; i++) {
    const key = String.fromCharCode(65 + (i % 26));
    const t0 = process.hrtime.bigint();
    await r.api('POST', `/term/send?id=${id}&data=${key}`);
    for (;;) {  // as a poller that asks again as soon as an answer is empty
      const read = await r.api('GET', `/term/read?id=${id}&since=${since}`);
      if (read.data.includes(key)) { since = read.len; break; }
    }
    viaPoll.push(Number(process.hrtime.bigint() - t0) / 1e6);
  }
  console.log(`keystroke-to-echo over WebSocket: p50 ${pct(viaWs, 0.5).toFixed(2)} ms, p99 ${pct(viaWs, 0.99).toFixed(2)} ms`);
  console.log(`keystroke-to-echo via /term/read polling (no pause): p50 ${pct(viaPoll, 0.5).toFixed(2)} ms, p99 ${pct(viaPoll, 0.99).toFixed(2)} ms`);
  console.log('  (kxterm line mode polls every 80 ms, so it adds 40 ms on average)');
  await r.api('POST', `/term/close?id=${id}`);

  // --- 2. throughput: cat of a text file to an attached WebSocket client, and tmux
  const file = path.join(r.work, 'big.txt');
  const line = 'the quick brown fox jumps over the lazy dog 0123456789\n';
  fs.writeFileSync(file, line.repeat(Math.ceil(megabytes * 1048576 / line.length)));
  const bytes = fs.statSync(file).size;
  const shell = await open('bash --norc --noprofile');
  const client = await attach(shell);
  await sleep(300);
  let seen = 0;
  const done = new Promise((resolve) => client.on('message', (data, binary) => {
    if (binary && (seen += data.length, data.includes('CAT-DONE-7'))) resolve();
  }));
  const t0 = Date.now();
  client.send(`cat ${file}; echo CAT-DONE-$((3+4))\r`);
  await done;
  const ours = bytes / 1048576 / ((Date.now() - t0) / 1000);
  client.close();
  await r.api('POST', `/term/close?id=${shell}`);
  const socketName = `kxbench${process.pid}`;
  const tmux = (...args) => spawnSync('tmux', ['-L', socketName, ...args], { encoding: 'utf8' });
  tmux('new-session', '-d', '-x', '120', '-y', '30', 'bash --norc --noprofile');
  // A client attached in a pseudo-terminal of its own, as a person's would be.
  const attached = spawnSync('bash', ['-c', `script -qfec "tmux -L ${socketName} attach" /dev/null >/dev/null & echo $!`], { encoding: 'utf8' });
  await sleep(500);
  const t1 = Date.now();
  tmux('send-keys', `cat ${file}; tmux -L ${socketName} wait-for -S done`, 'Enter');
  tmux('wait-for', 'done');
  const theirs = bytes / 1048576 / ((Date.now() - t1) / 1000);
  tmux('kill-server');
  try { process.kill(Number(attached.stdout.trim())); } catch { /* already gone */ }
  console.log(`cat of ${megabytes} MB to an attached client: kx session ${ours.toFixed(1)} MB/s, tmux ${theirs.toFixed(1)} MB/s`);

  // --- 3. fifty idle sessions
  const pid = execFileSync('bash', ['-c', `ss -Htlnp "sport = :${r.port}" | sed -n 's/.*pid=\\([0-9]*\\).*/\\1/p' | head -n1`], { encoding: 'utf8' }).trim();
  const rss = () => Number(fs.readFileSync(`/proc/${pid}/status`, 'utf8').match(/VmRSS:\s+(\d+)/)[1]);
  const cpu = () => { const f = fs.readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' '); return Number(f[11]) + Number(f[12]); };
  const before = rss();
  for (let i = 0; i < 50; i++) await open('bash --norc --noprofile');
  await sleep(1000);
  const after = rss();
  const c0 = cpu();
  await sleep(10000);
  const ticks = cpu() - c0;
  console.log(`50 idle sessions: resident RSS ${before} kB -> ${after} kB (+${((after - before) / 50).toFixed(0)} kB each, shells not counted); idle CPU ${ticks} ticks in 10 s (${(ticks / 10).toFixed(1)}% of a core)`);
} finally {
  r.stop();
}

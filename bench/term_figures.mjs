// Terminal figures against a real resident (loopback only, stops by itself):
//   node bench/term_figures.mjs <path to kx> [MB for the throughput run, default 50]
// 1. keystroke-to-echo latency, p50/p99 over 500 keys: WebSocket vs /term/read polling
// 2. cat of a text file through a session to an attached client, MB/s, next to tmux
// 3. memory and idle CPU of 50 idle sessions
import { createRequire } from 'node:module';
import { spawn, spawnSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { startResident, sleep } from '../tests/term/resident.mjs';

const WebSocket = createRequire(new URL('../tests/package.json', import.meta.url))('ws');
const kx = path.resolve(process.argv[2]);
const megabytes = Number(process.argv[3] || 50);
const r = await startResident(kx);
const pct = (xs, p) => { const s = [...xs].sort((a, b) => a - b); return s[Math.min(s.length - 1, Math.floor(s.length * p))]; };
const open = async (cmd) => {
  const answer = await r.api('POST', '/term/open?cmd=' + encodeURIComponent(cmd));
  if (!answer.ok) throw new Error(`term/open ${cmd}: ${JSON.stringify(answer)}`);
  return answer.id;
};
const attach = (id) => new Promise((resolve, reject) => {
  const ws = new WebSocket(r.wsUrl(`/term/ws?id=${id}&from=0`));
  ws.on('open', () => resolve(ws));
  ws.on('error', reject);
  ws.on('unexpected-response', (_, answer) => reject(new Error(`attach ${id}: HTTP ${answer.statusCode}`)));
});
const statusOf = (pid, key) =>
  Number(fs.readFileSync(`/proc/${pid}/status`, 'utf8').match(new RegExp(`${key}:\\s+(\\d+)`))[1]);
const cpuTicks = (pid) => {
  const fields = fs.readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' ');
  return Number(fields[11]) + Number(fields[12]);
};
const childrenOf = (pid) => fs.readdirSync(`/proc/${pid}/task`).flatMap((task) =>
  fs.readFileSync(`/proc/${pid}/task/${task}/children`, 'utf8').trim().split(/\s+/).filter(Boolean));

async function latency() {
  // One key into `cat` (echoed by the terminal) until it comes back.
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
}

async function throughputOurs(file, bytes) {
  const shell = await open('bash --norc --noprofile');
  const client = await attach(shell);
  await sleep(300);
  // The end marker may be split across frames, so look at the tail of the stream.
  let tail = '';
  const done = new Promise((resolve, reject) => {
    client.on('message', (data, binary) => {
      if (!binary) return;
      tail = (tail + data.toString('latin1')).slice(-64);
      if (tail.includes('CAT-DONE-7')) resolve();
    });
    client.on('close', (code) => reject(new Error(`terminal socket closed (${code}) before the end marker`)));
  });
  const t0 = Date.now();
  client.send(`cat ${file}; echo CAT-DONE-$((3+4))\r`);
  await done;
  const rate = bytes / 1048576 / ((Date.now() - t0) / 1000);
  client.close();
  await r.api('POST', `/term/close?id=${shell}`);
  return rate;
}

async function throughputTmux(file, bytes) {
  const socketName = `kxbench${process.pid}`;
  const tmux = (...args) => spawnSync('tmux', ['-L', socketName, ...args], { encoding: 'utf8' });
  tmux('new-session', '-d', '-x', '120', '-y', '30', 'bash --norc --noprofile');
  // A client attached in a pseudo-terminal of its own, as a person's would be.
  const attached = spawn('script', ['-qfec', `tmux -L ${socketName} attach`, '/dev/null'], { stdio: 'ignore' });
  try {
    await sleep(500);
    const t0 = Date.now();
    tmux('send-keys', `cat ${file}; tmux -L ${socketName} wait-for -S done`, 'Enter');
    tmux('wait-for', 'done');
    return bytes / 1048576 / ((Date.now() - t0) / 1000);
  } finally {
    tmux('kill-server');
    attached.kill();
  }
}

async function idleSessions() {
  const before = statusOf(r.pid, 'VmRSS');
  for (let i = 0; i < 50; i++) await open('bash --norc --noprofile');
  await sleep(1000);
  const after = statusOf(r.pid, 'VmRSS');
  const shells = childrenOf(r.pid);
  const shellKb = shells.reduce((sum, child) => sum + statusOf(child, 'VmRSS'), 0);
  const c0 = cpuTicks(r.pid);
  await sleep(10000);
  const ticks = cpuTicks(r.pid) - c0;
  console.log(`50 idle sessions: resident RSS ${before} kB -> ${after} kB (+${((after - before) / 50).toFixed(0)} kB each); ` +
    `${shells.length} shells ${(shellKb / 1024).toFixed(1)} MB (${(shellKb / shells.length).toFixed(0)} kB each); ` +
    `resident idle CPU ${ticks} ticks in 10 s (${(ticks / 10).toFixed(1)}% of a core)`);
}

try {
  await latency();
  const file = path.join(r.work, 'big.txt');
  const line = 'the quick brown fox jumps over the lazy dog 0123456789\n';
  fs.writeFileSync(file, line.repeat(Math.ceil(megabytes * 1048576 / line.length)));
  const bytes = fs.statSync(file).size;
  const ours = await throughputOurs(file, bytes);
  const theirs = await throughputTmux(file, bytes);
  console.log(`cat of ${megabytes} MB to an attached client: kx session ${ours.toFixed(1)} MB/s, tmux ${theirs.toFixed(1)} MB/s`);
  await idleSessions();
} finally {
  r.stop();
}

// A page from another local server, in Debian's chromium, against a real resident:
// it cannot run commands or join chat, even in a browser that holds the owner's
// cookie; the same browser on the resident's own pages can.
//   KX=<path to kx> node --test tests/resident/foreign_page.test.mjs
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';
import { chromium } from 'playwright-core';
import { startResident, sleep } from '../term/resident.mjs';

const kx = process.env.KX;
let resident;
let context;
let foreign;
let foreignBase;

// What the foreign page tries; it reports each outcome as text.
const attackPage = (port, marker) => `<!doctype html><meta charset="utf-8"><title>foreign</title>
<script>
window.outcome = (async () => {
  const target = 'http://127.0.0.1:${port}';
  const tries = {};
  const attempt = async (name, run) => {
    try { tries[name] = await run(); } catch (e) { tries[name] = 'failed: ' + e.name; }
  };
  const line = 'Kestrune: touch ${marker}';
  await attempt('fetch', async () => {
    const r = await fetch(target + '/console/exec?bot=cli', { method: 'POST', body: line, credentials: 'include' });
    return 'status ' + r.status;
  });
  await attempt('blind', async () => {
    const r = await fetch(target + '/console/exec?bot=cli', { method: 'POST', body: line, mode: 'no-cors', credentials: 'include' });
    return r.type;  // opaque: the page learns nothing, but did the resident run it?
  });
  await attempt('websocket', () => new Promise((resolve) => {
    const ws = new WebSocket('ws://127.0.0.1:${port}/');
    ws.onopen = () => { ws.send('join\\ngeneral\\nintruder'); ws.send('msg\\nfrom the foreign page'); setTimeout(() => resolve('open'), 300); };
    ws.onerror = () => resolve('failed');
  }));
  return tries;
})();
</script>`;

before(async () => {
  resident = await startResident(kx);
  const marker = path.join(resident.work, 'pwned');
  foreign = http.createServer((req, res) => {
    res.writeHead(200, { 'Content-Type': 'text/html' });
    res.end(attackPage(resident.port, marker));
  });
  await new Promise((r) => foreign.listen(0, '127.0.0.1', r));
  foreignBase = `http://127.0.0.1:${foreign.address().port}`;
  context = await chromium.launchPersistentContext(fs.mkdtempSync(path.join(resident.work, 'chromium-')), {
    executablePath: '/usr/bin/chromium',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
});
after(async () => {
  await context?.close();
  foreign?.close();
  resident.stop();
});

test('a foreign page gets no command run and no chat, even beside the owner\'s session', async () => {
  // The owner's link first, as `kx gui` prints it: the browser now holds the cookie.
  const guiOut = execFileSync(kx, ['--port', String(resident.port), '--conf', path.join(resident.work, 'home'), 'gui'],
    { env: { ...process.env, HOME: path.join(resident.work, 'user'), XDG_RUNTIME_DIR: resident.work, PATH: '/nonexistent' },
      encoding: 'utf8', timeout: 20000 });
  const link = guiOut.match(/http:\/\/127\.0\.0\.1:\d+\/ui\/\?token=[0-9a-f]{64}/)[0];
  const owner = await context.newPage();
  await owner.goto(link);
  assert.equal(owner.url(), `${resident.base}/ui/`);

  const page = await context.newPage();
  await page.goto(foreignBase + '/');
  const tries = await page.evaluate(() => window.outcome);
  assert.equal(tries.fetch, 'failed: TypeError');  // refused, and no CORS grant either
  assert.equal(tries.websocket, 'failed');
  await sleep(300);
  assert.equal(fs.existsSync(path.join(resident.work, 'pwned')), false, 'the blind POST ran a command');
  const log = await resident.api('GET', '/chatlog?channel=general');
  assert.equal(JSON.stringify(log).includes('intruder'), false);
  assert.equal(JSON.stringify(log).includes('foreign page'), false);

  // The owner's page, same browser: chat and a command work with the cookie alone.
  const own = await owner.evaluate(async () => {
    const ws = new WebSocket(`ws://${location.host}/`);
    const joined = await new Promise((resolve, reject) => {
      ws.onmessage = (e) => { const m = JSON.parse(e.data); if (m.type === 'joined') resolve(m.name); };
      ws.onerror = () => reject(new Error('websocket refused'));
      ws.onopen = () => ws.send('join\ngeneral\nowner');
    });
    const said = await new Promise((resolve) => {
      ws.onmessage = (e) => { const m = JSON.parse(e.data); if (m.type === 'msg' && m.msg.from === 'owner') resolve(m.msg.text); };
      ws.send('msg\nhello from my own page');
    });
    ws.close();
    const r = await fetch('/console/exec?bot=cli', { method: 'POST', body: 'pwd' });
    return { joined, said, status: r.status, answer: await r.json() };
  });
  assert.equal(own.joined, 'owner');
  assert.equal(own.said, 'hello from my own page');
  assert.equal(own.status, 200);
  assert.equal(own.answer.ok, true);
  assert.match(own.answer.out, /^OK: \//);
});

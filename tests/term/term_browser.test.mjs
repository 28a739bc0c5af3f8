// The browser terminal in Debian's chromium, against a real resident:
//   KX=<path to kx> node --test tests/term/term_browser.test.mjs
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import { chromium } from 'playwright-core';
import { startResident, sleep } from './resident.mjs';

let resident;
let context;
before(async () => {
  resident = await startResident(process.env.KX);
  // A fresh profile of its own (the persistent context's user data directory).
  context = await chromium.launchPersistentContext(fs.mkdtempSync(path.join(resident.work, 'chromium-')), {
    executablePath: '/usr/bin/chromium',
    viewport: { width: 1100, height: 700 },
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
});
after(async () => { await context?.close(); resident.stop(); });

// The lines of xterm's active buffer, as the user sees them.
const screenLines = (page) => page.evaluate(() => {
  const buffer = window.kxTerm.buffer.active;
  const lines = [];
  for (let i = 0; i < buffer.length; i++) lines.push(buffer.getLine(i).translateToString(true));
  return lines;
});
async function waitForLine(page, wanted, ms = 10000) {
  for (const end = Date.now() + ms; Date.now() < end; await sleep(50))
    if ((await screenLines(page)).some((line) => wanted.test(line))) return;
  assert.fail(`no line ${wanted} on screen:\n${(await screenLines(page)).join('\n')}`);
}

test('open, type, reload to the same screen, resize, detach leaves it running', async () => {
  // The login link `kx terminal` opens: the token becomes the cookie and leaves the address.
  const page = await context.newPage();
  await page.goto(`${resident.base}/ui/term.html?token=${resident.token}`);
  assert.equal(page.url(), resident.base + '/ui/term.html');
  await page.fill('#cmd', 'bash --norc --noprofile');
  await page.click('#new');
  await page.waitForFunction(() => /^t\d+ attached/.test(document.getElementById('status').textContent));
  const id = new URL(page.url()).hash.slice(1);
  assert.match(id, /^t\d+$/);

  await page.click('#screen');
  await page.keyboard.type('echo hello\n');
  await waitForLine(page, /^hello$/);

  await page.reload();
  await page.waitForFunction(() => /^t\d+ attached/.test(document.getElementById('status').textContent));
  await waitForLine(page, /^hello$/);

  await page.setViewportSize({ width: 800, height: 500 });
  await sleep(300);
  const size = await page.evaluate(() => ({ cols: window.kxTerm.cols, rows: window.kxTerm.rows }));
  await page.click('#screen');
  await page.keyboard.type('stty size\n');
  await waitForLine(page, new RegExp(`^${size.rows} ${size.cols}$`));

  await page.click('#detach');
  await page.close();
  const listed = await resident.api('GET', '/term/list');
  assert.ok(listed.sessions.some((s) => s.id === id && s.alive), 'the session outlives its tab');

  // The list offers it again, and Close ends it.
  const again = await context.newPage();
  await again.goto(resident.base + '/ui/term.html');
  await again.click(`#sessions li[data-id="${id}"]`);
  await waitForLine(again, /^hello$/);
  await again.click('#close');
  for (let i = 0; i < 50 && (await resident.api('GET', '/term/list')).sessions.some((s) => s.id === id); i++) await sleep(50);
  assert.ok(!(await resident.api('GET', '/term/list')).sessions.some((s) => s.id === id));
});

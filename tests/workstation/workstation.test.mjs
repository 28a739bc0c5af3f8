// The workstation page in Debian's chromium (driven by playwright-core) against a
// real resident on a temporary home. Each step leaves a screenshot in SHOTS.
//   KX=<kx> SHOTS=<dir> node --test tests/workstation/workstation.test.mjs
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync, spawn } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { chromium } from 'playwright-core';
import { startResident, stopResident } from './resident.mjs';

const kx = process.env.KX;
const shots = process.env.SHOTS || fs.mkdtempSync(path.join(os.tmpdir(), 'kx-shots-'));
const work = fs.mkdtempSync(path.join(os.tmpdir(), 'kx-ui-e2e-'));
const project = path.join(work, 'project');
let resident;
let browser;
let page;
const figures = [];

const shot = (name) => page.screenshot({ path: path.join(shots, `${name}.png`) });
// kx from the test, as a person at a terminal would type it: forwarded to the resident.
const kxLine = (...args) =>
  execFileSync(kx, ['--port', String(resident.port), '--conf', resident.home, ...args],
    { cwd: project, env: resident.env, encoding: 'utf8' });

before(async () => {
  fs.mkdirSync(shots, { recursive: true });
  fs.mkdirSync(path.join(project, 'src'), { recursive: true });
  fs.writeFileSync(path.join(project, 'src', 'main.c'), 'int main() {\n  return 0;\n}\n');
  fs.writeFileSync(path.join(project, 'notes.md'), 'first notes\n');
  fs.writeFileSync(path.join(project, 'old.txt'), 'soon deleted\n');
  resident = await startResident(kx, work);
  // A fresh profile for every run, never a downloaded browser.
  browser = await chromium.launchPersistentContext(path.join(work, 'chromium'), {
    executablePath: '/usr/bin/chromium',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    viewport: { width: 1280, height: 800 },
  });
  page = browser.pages()[0] || await browser.newPage();
  page.on('dialog', (dialog) => dialog.accept());
});

after(async () => {
  await browser?.close();
  await stopResident(resident);
  for (const line of figures) console.log(`# figure: ${line}`);
  fs.rmSync(work, { recursive: true, force: true });
});

test('enroll, follow an outside edit, diff, revert, restore, memory', async () => {
  const opened = Date.now();
  await page.goto(resident.pageUrl('/ui/'));
  await page.locator('#stores-table').waitFor();
  await page.locator('#browse-list li').first().waitFor();
  figures.push(`workstation first render ${Date.now() - opened} ms`);
  await shot('01-stores-empty');

  // Enroll by browsing: type the parent, step into the project from the list.
  await page.fill('#browse-path', work);
  await page.press('#browse-path', 'Enter');
  await page.getByRole('button', { name: 'project/' }).click();
  await page.getByRole('button', { name: `Enroll ${project}` }).click();
  await page.locator('#enroll-out', { hasText: 'OK: enrolled' }).waitFor();
  await page.locator('#stores-table td', { hasText: 'mode=vc' }).waitFor();
  await shot('02-enrolled');

  // Open a file with the keyboard: "/" finds, Enter opens.
  await page.getByRole('button', { name: 'Browse files' }).click();
  await page.keyboard.press('/');
  await page.keyboard.type('main.c');
  await page.keyboard.press('Enter');
  await page.locator('#file-path', { hasText: 'src/main.c' }).waitFor();
  assert.match(await page.locator('#file-text').textContent(), /return 0;/);
  await shot('03-file-open');

  // An edit made with kx shows up without a reload.
  const edited = Date.now();
  kxLine('fsvctl:checkin', '<path>src/main.c</path><content><![CDATA[int main() {\n  return 42;\n}\n]]></content>');
  await page.locator('#versions tr[data-version="2"]').waitFor({ timeout: 5000 });
  figures.push(`outside edit to page ${Date.now() - edited} ms`);
  assert.match(await page.locator('#file-text').textContent(), /return 42;/);
  assert.match(await page.locator('#versions tr[data-version="2"]').textContent(), /checkin.*cli/);
  await shot('04-new-version-appeared');

  // v1 against v2: the changed line is highlighted on both sides.
  await page.getByRole('button', { name: 'Compare A with B' }).click();
  const changed = page.locator('#diff tr.change');
  await changed.first().waitFor();
  assert.equal(await changed.count(), 1);
  assert.match(await changed.locator('td.del').textContent(), /return 0;/);
  assert.match(await changed.locator('td.add').textContent(), /return 42;/);
  assert.equal(await changed.locator('td.add mark').textContent(), '42');
  await shot('05-diff-v1-v2');

  // Revert to v1 (confirmed) makes v3 with v1's text.
  await page.getByLabel('v1 as A').check();
  await page.getByRole('button', { name: 'Revert to A…' }).click();
  await page.locator('#versions tr[data-version="3"]').waitFor();
  assert.match(await page.locator('#versions tr[data-version="3"]').textContent(), /revert/);
  assert.match(await page.locator('#file-text').textContent(), /return 0;/);
  assert.match(fs.readFileSync(path.join(project, 'src', 'main.c'), 'utf8'), /return 0;/);
  await shot('06-reverted-v3');

  // A file deleted with kx is shown as a tombstone and comes back with one button.
  kxLine('fs:rm', '<path>old.txt</path>');
  await page.fill('#file-search', 'old');
  await page.locator('#tree .node.tomb', { hasText: 'old.txt' }).click();
  await page.locator('#tomb-banner').waitFor();
  await shot('07-tombstone');
  await page.getByRole('button', { name: 'Restore it' }).click();
  await page.locator('#tomb-banner').waitFor({ state: 'hidden' });
  assert.equal(fs.readFileSync(path.join(project, 'old.txt'), 'utf8'), 'soon deleted\n');
  await page.locator('#tree .node:not(.tomb)', { hasText: 'old.txt' }).waitFor();
  await shot('08-restored');

  // Memory: add a memo through the page, find it again by one of its words.
  await page.getByRole('tab', { name: 'Memory' }).click();
  await page.fill('#mem-add-ctx', 'notes');
  await page.fill('#mem-add-topic', 'release');
  await page.fill('#mem-add-text', 'tag the release after the changelog is merged');
  await page.getByRole('button', { name: 'Add', exact: true }).click();
  await page.locator('#mem-add-out', { hasText: 'OK' }).waitFor();
  await page.fill('#mem-query', 'changelog');
  await page.press('#mem-query', 'Enter');
  await page.locator('#mem-search-out', { hasText: 'release #1: tag the release after the changelog is merged' }).waitFor();
  await shot('09-memory-search');

  // Dark, at the same size, still shows the diff readably.
  await page.getByRole('tab', { name: 'Files' }).click();
  await page.keyboard.press('t');
  assert.equal(await page.evaluate(() => document.documentElement.dataset.theme), 'dark');
  await shot('10-dark');
});

test('a 20,000-file tree renders only what is visible', async () => {
  const big = path.join(work, 'big');
  for (let d = 0; d < 200; d++) {
    const dir = path.join(big, `dir${String(d).padStart(3, '0')}`);
    fs.mkdirSync(dir, { recursive: true });
    for (let f = 0; f < 100; f++) fs.writeFileSync(path.join(dir, `file${f}.txt`), `${d}/${f}\n`);
  }
  kxLine('Kestrune', 'EnrollVersionControl', big);
  await page.goto(resident.pageUrl('/ui/#stores'));
  await page.reload();
  await page.locator('#stores-table td', { hasText: big }).waitFor();
  const started = Date.now();
  await page.locator('#stores-table tr', { hasText: big }).getByRole('button', { name: 'Browse files' }).click();
  await page.locator('#tree-info', { hasText: /^20000 files$/ }).waitFor({ timeout: 20000 });
  await page.locator('#tree .node', { hasText: 'file0.txt' }).first().waitFor();
  figures.push(`20,000-file tree first render ${Date.now() - started} ms`);
  const rendered = await page.locator('#tree .node').count();
  assert.ok(rendered < 100, `only visible rows are in the page (${rendered})`);
  // The end of the list is one key away and still only a screenful.
  await page.locator('#tree').focus();
  await page.keyboard.press('End');
  await page.locator('#tree .node', { hasText: 'file99.txt' }).last().waitFor();
  assert.ok(await page.locator('#tree .node').count() < 100);
  await page.fill('#file-search', 'dir150/file7');
  await page.locator('#tree-info', { hasText: '11 of 20000 files match' }).waitFor();
  await shot('11-big-tree');
});

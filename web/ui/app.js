// The workstation page: stores and their files with every version, pending emits,
// memory, the console and chat. Everything it shows comes from the resident's JSON
// routes (same origin, so the login cookie goes along); it never reads command text
// for structure.
'use strict';

const $ = (id) => document.getElementById(id);

// ---- talking to the resident ------------------------------------------------

class Refused extends Error {}

async function api(path, options = {}) {
  const answer = await fetch(path, options);
  if (answer.status === 401) {
    showLocked();
    throw new Refused('not signed in');
  }
  const type = answer.headers.get('content-type') || '';
  if (!type.startsWith('application/json')) {
    const text = await answer.text();
    if (!answer.ok) throw new Error(text);
    return text;
  }
  const body = await answer.json();
  if (!answer.ok || body.ok === false) throw new Error(body.error || `${answer.status}`);
  return body;
}

const form = (fields) => new URLSearchParams(fields);
const post = (path, fields) =>
  api(path, { method: 'POST', body: form(fields), headers: { 'Content-Type': 'application/x-www-form-urlencoded' } });
const query = (path, fields) => api(`${path}?${form(fields)}`);

// A command line run for the panel's seat (a human seat), as if typed.
async function command(line) {
  const answer = await api('/console/exec?bot=panel', { method: 'POST', body: line });
  if (answer.out.startsWith('ERROR')) throw new Error(answer.out);
  return answer.out;
}

function toast(text, bad = false) {
  const t = $('toast');
  t.textContent = text;
  t.className = bad ? 'bad show' : 'show';
  clearTimeout(toast.timer);
  toast.timer = setTimeout(() => { t.className = ''; }, bad ? 6000 : 2500);
}

function showLocked() {
  $('locked').hidden = false;
  document.querySelector('main').hidden = true;
}

const failed = (error) => { if (!(error instanceof Refused)) toast(error.message, true); };

function el(tag, attrs = {}, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attrs)) {
    if (key === 'class') node.className = value;
    else if (key.startsWith('on')) node.addEventListener(key.slice(2), value);
    else if (value !== undefined && value !== null && value !== false) node.setAttribute(key, value);
  }
  for (const child of children) node.append(child);
  return node;
}

// ---- tabs and theme ---------------------------------------------------------

const tabs = [...document.querySelectorAll('#tabs [role=tab]')];
const onShow = {};

function showTab(name) {
  for (const tab of tabs) tab.setAttribute('aria-selected', String(tab.dataset.tab === name));
  for (const panel of document.querySelectorAll('[data-panel]')) panel.hidden = panel.dataset.panel !== name;
  if (onShow[name]) onShow[name]();
  history.replaceState(null, '', `#${name}`);
}

$('tabs').addEventListener('click', (event) => {
  const tab = event.target.closest('[role=tab]');
  if (tab) showTab(tab.dataset.tab);
});
$('tabs').addEventListener('keydown', (event) => {
  if (event.key !== 'ArrowRight' && event.key !== 'ArrowLeft') return;
  const shown = tabs.filter((t) => !t.hidden);
  const at = shown.indexOf(document.activeElement);
  const next = shown[(at + (event.key === 'ArrowRight' ? 1 : shown.length - 1)) % shown.length];
  next.focus();
  showTab(next.dataset.tab);
});

// A link or a typed address may name a tab ("#files").
window.addEventListener('hashchange', () => {
  const wanted = location.hash.slice(1);
  if (tabs.some((t) => t.dataset.tab === wanted && !t.hidden)) showTab(wanted);
});

function applyTheme(theme) {
  document.documentElement.dataset.theme = theme;
  localStorage.setItem('kst-theme', theme);
}
$('theme').addEventListener('click', () =>
  applyTheme(document.documentElement.dataset.theme === 'dark' ? 'light' : 'dark'));
applyTheme(localStorage.getItem('kst-theme') ||
  (matchMedia('(prefers-color-scheme: dark)').matches ? 'dark' : 'light'));

// Keys that work anywhere but in a text field: "/" finds a file, "t" flips the theme.
document.addEventListener('keydown', (event) => {
  const typing = /^(INPUT|TEXTAREA|SELECT)$/.test(document.activeElement.tagName);
  if (typing || event.ctrlKey || event.metaKey || event.altKey) return;
  if (event.key === '/') {
    event.preventDefault();
    showTab('files');
    $('file-search').focus();
  } else if (event.key === 't') {
    $('theme').click();
  }
});

// ---- stores -----------------------------------------------------------------

let stores = [];

async function loadStores() {
  const answer = await api('/vc/list');
  stores = answer.stores;
  const body = $('stores-table').tBodies[0];
  body.textContent = '';
  if (!stores.length)
    body.append(el('tr', {}, el('td', { colspan: 4, class: 'muted' }, 'Nothing enrolled yet: choose a directory below.')));
  for (const store of stores) {
    body.append(el('tr', {},
      el('td', {}, store.dir, store.active ? el('span', { class: 'badge' }, 'active') : ''),
      el('td', {}, el('code', {}, store.policy)),
      el('td', {}, String(store.files)),
      el('td', {}, el('button', { onclick: () => openStore(store.dir) }, 'Browse files'))));
  }
  const pick = $('store-pick');
  const chosen = pick.value;
  pick.textContent = '';
  for (const store of stores) pick.append(el('option', { value: store.dir }, store.dir));
  if (chosen && stores.some((s) => s.dir === chosen)) pick.value = chosen;
  else if (stores.length) pick.value = (stores.find((s) => s.active) || stores[0]).dir;
}

let browsing = '';

async function browse(path) {
  try {
    const answer = await query('/vc/dirs', path ? { path } : {});
    browsing = answer.path;
    $('browse-path').value = answer.path;
    $('browse-up').onclick = () => browse(answer.parent);
    const list = $('browse-list');
    list.textContent = '';
    for (const name of answer.dirs) {
      const full = answer.path.endsWith('/') ? answer.path + name : `${answer.path}/${name}`;
      list.append(el('li', {}, el('button', { onclick: () => browse(full) }, `${name}/`)));
    }
    if (!answer.dirs.length) list.append(el('li', { class: 'muted' }, '(no sub-directories)'));
    $('enroll-button').textContent = `Enroll ${answer.path}`;
  } catch (error) {
    failed(error);
  }
}

$('browse-form').addEventListener('submit', (event) => {
  event.preventDefault();
  browse($('browse-path').value.trim());
});

$('enroll-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const out = $('enroll-out');
  out.hidden = false;
  out.textContent = `enrolling ${browsing}…`;
  try {
    const answer = await post('/vc/add', { dir: browsing, flags: $('enroll-flags').value.trim() });
    out.textContent = answer.out;
    await loadStores();
    $('store-pick').value = stores.find((s) => s.dir === browsing)?.dir || $('store-pick').value;
  } catch (error) {
    out.textContent = error.message;
  }
});

onShow.stores = () => { loadStores().catch(failed); if (!browsing) browse(''); };

function openStore(dir) {
  $('store-pick').value = dir;
  showTab('files');
}

// ---- the file tree: only the rows in view are in the page --------------------

const ROW = 24;
let treeFiles = [];       // [{path, versions, current, tombstone}] in path order
let treeRows = [];        // what the list shows now: folders and files, flattened
const collapsed = new Set();
let cursor = 0;           // the row the keyboard is on
let treeStore = '';

function buildRows() {
  const needle = $('file-search').value.trim().toLowerCase();
  const rows = [];
  if (needle) {
    for (const file of treeFiles)
      if (file.path.toLowerCase().includes(needle)) rows.push({ file, depth: 0, label: file.path });
  } else {
    // Folders come from the paths; a folder row is shown once, before its files.
    let open = [];  // the folder parts of the previous file
    let hidden = null;  // a collapsed folder prefix whose contents are skipped
    for (const file of treeFiles) {
      if (hidden && file.path.startsWith(hidden)) continue;
      hidden = null;
      const parts = file.path.split('/');
      let same = 0;
      while (same < open.length && same < parts.length - 1 && open[same] === parts[same]) same++;
      open = open.slice(0, same);
      let skip = false;
      for (let i = same; i < parts.length - 1; i++) {
        open.push(parts[i]);
        const prefix = `${open.join('/')}/`;
        rows.push({ folder: prefix, depth: i, label: parts[i] });
        if (collapsed.has(prefix)) {
          hidden = prefix;
          skip = true;
          break;
        }
      }
      if (skip) continue;
      rows.push({ file, depth: parts.length - 1, label: parts[parts.length - 1] });
    }
  }
  treeRows = rows;
  cursor = Math.min(cursor, Math.max(0, rows.length - 1));
  $('tree-spacer').style.height = `${rows.length * ROW}px`;
  const deleted = treeFiles.filter((f) => f.tombstone).length;
  $('tree-info').textContent = needle
    ? `${rows.length} of ${treeFiles.length} files match`
    : `${treeFiles.length} files${deleted ? `, ${deleted} deleted` : ''}`;
  renderTree();
}

function renderTree() {
  const tree = $('tree');
  const first = Math.max(0, Math.floor(tree.scrollTop / ROW) - 5);
  const last = Math.min(treeRows.length, Math.ceil((tree.scrollTop + tree.clientHeight) / ROW) + 5);
  for (const old of tree.querySelectorAll('.node')) old.remove();
  const parts = [];
  for (let i = first; i < last; i++) {
    const row = treeRows[i];
    const node = el('div', {
      class: `node${row.file?.tombstone ? ' tomb' : ''}${i === cursor ? ' cursor' : ''}${row.file && row.file.path === openPath ? ' open' : ''}`,
      role: 'treeitem', 'data-row': i, style: `top:${i * ROW}px;padding-left:${0.4 + row.depth}rem`,
    });
    if (row.folder) {
      node.append(el('span', { class: 'twisty' }, collapsed.has(row.folder) ? '▸' : '▾'), row.label);
      node.setAttribute('aria-expanded', String(!collapsed.has(row.folder)));
    } else {
      node.append(el('span', { class: 'name' }, row.label),
        el('span', { class: 'count', title: `current v${row.file.current}` },
          `${row.file.tombstone ? 'deleted · ' : ''}${row.file.versions} version${row.file.versions === 1 ? '' : 's'}`));
    }
    parts.push(node);
  }
  tree.append(...parts);
}

function activateRow(i) {
  const row = treeRows[i];
  if (!row) return;
  cursor = i;
  if (row.folder) {
    if (collapsed.has(row.folder)) collapsed.delete(row.folder); else collapsed.add(row.folder);
    buildRows();
  } else {
    openFile(row.file.path);
  }
}

function moveCursor(to) {
  cursor = Math.max(0, Math.min(treeRows.length - 1, to));
  const tree = $('tree');
  if (cursor * ROW < tree.scrollTop) tree.scrollTop = cursor * ROW;
  else if ((cursor + 1) * ROW > tree.scrollTop + tree.clientHeight) tree.scrollTop = (cursor + 1) * ROW - tree.clientHeight;
  renderTree();
}

$('tree').addEventListener('scroll', renderTree);
$('tree').addEventListener('click', (event) => {
  const node = event.target.closest('.node');
  if (node) activateRow(Number(node.dataset.row));
});
$('tree').addEventListener('keydown', (event) => {
  const page = Math.floor($('tree').clientHeight / ROW);
  const moves = { ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page };
  if (event.key in moves) moveCursor(cursor + moves[event.key]);
  else if (event.key === 'Home') moveCursor(0);
  else if (event.key === 'End') moveCursor(treeRows.length - 1);
  else if (event.key === 'Enter' || event.key === ' ') activateRow(cursor);
  else return;
  event.preventDefault();
});
$('file-search').addEventListener('input', () => { cursor = 0; $('tree').scrollTop = 0; buildRows(); });
$('file-search').addEventListener('keydown', (event) => {
  if (event.key === 'ArrowDown' || event.key === 'Enter') {
    event.preventDefault();
    $('tree').focus();
    if (event.key === 'Enter') activateRow(cursor);
  }
});
$('store-pick').addEventListener('change', () => { closeFile(); loadTree(); });

async function loadTree() {
  const store = $('store-pick').value;
  if (!store) {
    treeFiles = [];
    buildRows();
    $('tree-info').textContent = 'No store enrolled yet (see Stores).';
    return;
  }
  const answer = await query('/store/tree', { store });
  if (store !== treeStore) { collapsed.clear(); cursor = 0; }
  treeStore = store;
  treeFiles = answer.files;
  buildRows();
}

onShow.files = async () => {
  try {
    if (!stores.length) await loadStores();
    await loadTree();
    renderTree();
  } catch (error) { failed(error); }
};

// ---- one file: versions, text, diff, revert, restore -------------------------

let openPath = '';
let fileLog = null;
let pickA = 0;
let pickB = 0;
let shown = 'text';  // what the lower pane shows: 'text' of pickB, or the 'diff'

function closeFile() {
  openPath = '';
  $('file-view').hidden = true;
  $('file-empty').hidden = false;
}

async function openFile(path) {
  if (path !== openPath) { pickA = 0; pickB = 0; shown = 'text'; }
  openPath = path;
  renderTree();
  await refreshFile().catch(failed);
}

function fullPath() {
  const store = treeStore.endsWith('/') ? treeStore : `${treeStore}/`;
  return store + openPath;
}

// Reads the file's log again and redraws; the A/B choice survives unless the
// versions it named are gone.
async function refreshFile() {
  if (!openPath) return;
  const path = openPath;
  const log = await query('/store/log', { store: treeStore, path });
  if (path !== openPath) return;
  const grew = fileLog && fileLog.path === path && log.current !== fileLog.current;
  fileLog = log;
  const numbers = log.versions.map((v) => v.n);
  const latest = numbers[numbers.length - 1] || 0;
  // Following the newest version is what a person watching a file wants.
  if (!numbers.includes(pickB) || grew) pickB = latest;
  if (!numbers.includes(pickA) || grew) pickA = numbers[numbers.length - 2] || latest;
  $('file-empty').hidden = true;
  $('file-view').hidden = false;
  $('file-path').textContent = path;
  $('file-state').textContent = `${numbers.length} version${numbers.length === 1 ? '' : 's'}, current v${log.current}`;
  $('tomb-banner').hidden = !log.tombstone;
  const body = $('versions').tBodies[0];
  body.textContent = '';
  for (const v of [...log.versions].reverse()) {
    const radio = (side, checked) => el('input', {
      type: 'radio', name: `pick-${side}`, checked, 'aria-label': `v${v.n} as ${side.toUpperCase()}`,
      onchange: () => { if (side === 'a') pickA = v.n; else pickB = v.n; },
    });
    body.append(el('tr', { 'data-version': v.n, class: v.n === log.current ? 'current' : '' },
      el('td', {}, radio('a', v.n === pickA)), el('td', {}, radio('b', v.n === pickB)),
      el('td', {}, `v${v.n}`), el('td', {}, v.time || '(before the log)'), el('td', {}, v.op || ''),
      el('td', {}, v.who || ''),
      el('td', {}, el('button', { onclick: () => { pickB = v.n; shown = 'text'; refreshFile().catch(failed); } }, 'view'))));
  }
  if (shown === 'diff') await showDiff(); else await showText(pickB);
}

async function showText(n) {
  const text = n ? await query('/store/version', { store: treeStore, path: openPath, n }) : '';
  $('diff').hidden = true;
  const pre = $('file-text');
  pre.hidden = false;
  pre.textContent = text;
  pre.dataset.version = n;
}

// Marks the part of two paired lines that differs (common head and tail left plain).
function marked(text, other) {
  let head = 0;
  while (head < text.length && head < other.length && text[head] === other[head]) head++;
  let tail = 0;
  while (tail < text.length - head && tail < other.length - head &&
         text[text.length - 1 - tail] === other[other.length - 1 - tail]) tail++;
  const cell = el('td', { class: 'code' }, text.slice(0, head));
  if (text.length - tail > head) cell.append(el('mark', {}, text.slice(head, text.length - tail)));
  cell.append(text.slice(text.length - tail));
  return cell;
}

async function showDiff() {
  const answer = await query('/store/diff', { store: treeStore, path: openPath, a: pickA, b: pickB });
  $('file-text').hidden = true;
  $('diff').hidden = false;
  $('diff-a').textContent = `v${answer.a}`;
  $('diff-b').textContent = `v${answer.b}`;
  const body = $('diff').querySelector('tbody');
  body.textContent = '';
  const rows = answer.rows;
  const num = (n) => el('td', { class: 'num' }, n ? String(n) : '');
  for (let i = 0; i < rows.length;) {
    if (rows[i].t === 'same') {
      body.append(el('tr', {}, num(rows[i].a), el('td', { class: 'code' }, rows[i].text), num(rows[i].b),
        el('td', { class: 'code' }, rows[i].text)));
      i++;
      continue;
    }
    // A change: removed lines face added lines, pair by pair.
    const removed = [];
    const added = [];
    while (i < rows.length && rows[i].t === 'removed') removed.push(rows[i++]);
    while (i < rows.length && rows[i].t === 'added') added.push(rows[i++]);
    for (let k = 0; k < Math.max(removed.length, added.length); k++) {
      const left = removed[k];
      const right = added[k];
      body.append(el('tr', { class: 'change' },
        num(left?.a), left ? (right ? marked(left.text, right.text) : el('td', { class: 'code' }, left.text)) : el('td', { class: 'blank' }),
        num(right?.b), right ? (left ? marked(right.text, left.text) : el('td', { class: 'code' }, right.text)) : el('td', { class: 'blank' })));
      const [l, r] = [...body.lastChild.querySelectorAll('td:nth-child(2), td:nth-child(4)')];
      if (left) l.classList.add('del');
      if (right) r.classList.add('add');
    }
  }
  if (!rows.some((r) => r.t !== 'same')) body.append(el('tr', {}, el('td', { colspan: 4, class: 'muted' }, 'No difference.')));
}

$('diff-button').addEventListener('click', () => { shown = 'diff'; showDiff().catch(failed); });
$('text-button').addEventListener('click', () => { shown = 'text'; showText(pickB).catch(failed); });

$('revert-button').addEventListener('click', async () => {
  if (!pickA) return;
  if (!confirm(`Revert ${openPath} to v${pickA}? Its text becomes a new version; nothing is lost.`)) return;
  try {
    const out = await command(`fsvctl:revert <path>${fullPath()}</path><version>${pickA}</version>`);
    toast(out);
    shown = 'text';
    await reloadAfterChange();
  } catch (error) { failed(error); }
});

$('restore-button').addEventListener('click', async () => {
  try {
    toast(await command(`fs:restore <path>${fullPath()}</path>`));
    await reloadAfterChange();
  } catch (error) { failed(error); }
});

// ---- following changes made elsewhere -------------------------------------------
// The resident's edit logs only grow: a cheap stamp of their sizes tells the page
// that something changed, whoever did it (kx, an agent, the watcher).

let stamp = null;

async function reloadAfterChange() {
  if (!$('tab-files').hidden && treeStore) await loadTree();
  if (openPath) await refreshFile();
  if (!$('tab-stores').hidden) await loadStores();
}

async function watchChanges() {
  try {
    const answer = await api('/store/changes');
    if (stamp !== null && answer.stamp !== stamp) {
      stamp = answer.stamp;
      await reloadAfterChange();
    }
    stamp = answer.stamp;
  } catch (error) {
    if (error instanceof Refused) return;
  }
  setTimeout(watchChanges, document.hidden ? 3000 : 700);
}

// ---- emits ------------------------------------------------------------------

async function loadEmits() {
  const answer = await api('/vc/pending');
  const count = $('emit-count');
  count.hidden = !answer.emits.length;
  count.textContent = String(answer.emits.length);
  const list = $('emit-list');
  list.textContent = '';
  if (!answer.emits.length) list.append(el('li', { class: 'muted' }, 'Nothing waits for approval.'));
  for (const emit of answer.emits) {
    const dest = el('input', { placeholder: 'folder for B', 'aria-label': `destination for emit ${emit.number}` });
    const approve = async (mode) => {
      if (!confirm(`Approve emit #${emit.number} in mode ${mode}?`)) return;
      try {
        const done = await post('/vc/approve', mode === 'B' ? { number: emit.number, mode, dest: dest.value } : { number: emit.number, mode });
        toast(done.out);
        await loadEmits();
      } catch (error) { failed(error); }
    };
    list.append(el('li', { 'data-emit': emit.number }, el('code', {}, emit.text),
      el('div', { class: 'row' },
        el('button', { onclick: () => approve('A') }, 'Approve: over current files (A)'),
        dest, el('button', { onclick: () => approve('B') }, 'Approve: write to folder (B)'))));
  }
}
onShow.emits = () => loadEmits().catch(failed);

// ---- memory -------------------------------------------------------------------

const memBot = () => $('mem-bot').value.trim() || 'cli';
let memCtx = '';

function pickList(list, names, onPick) {
  list.textContent = '';
  if (!names.length) list.append(el('li', { class: 'muted' }, '(none)'));
  for (const name of names) list.append(el('li', {}, el('button', { onclick: () => onPick(name) }, name)));
}

async function loadContexts() {
  const answer = await query('/bots/contexts', { bot: memBot() });
  pickList($('mem-contexts'), answer.names, (ctx) => loadTopics(ctx).catch(failed));
}

async function loadTopics(ctx) {
  memCtx = ctx;
  $('mem-ctx-name').textContent = ctx;
  $('mem-add-ctx').value = ctx;
  const answer = await query('/bots/memories', { bot: memBot(), ctx });
  pickList($('mem-topics'), answer.names, (topic) => loadMemos(topic).catch(failed));
}

async function loadMemos(topic) {
  $('mem-topic-name').textContent = topic;
  $('mem-add-topic').value = topic;
  const answer = await query('/bots/memory', { bot: memBot(), ctx: memCtx, topic });
  $('mem-memos').textContent = answer.out;
}

$('mem-load').addEventListener('click', () => loadContexts().catch(failed));
$('mem-search-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const out = $('mem-search-out');
  out.hidden = false;
  const q = $('mem-query').value.trim();
  const ctx = memCtx || $('mem-add-ctx').value.trim();
  if (!ctx) { out.textContent = 'Choose a context first.'; return; }
  try {
    const answer = await query('/bots/search', { bot: memBot(), ctx, q });
    out.textContent = answer.hits?.length
      ? answer.hits.map((h) => `${h.topic} #${h.n}: ${h.text}`).join('\n')
      : answer.out;
  } catch (error) {
    out.textContent = error.message;
  }
});
$('mem-add-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const out = $('mem-add-out');
  out.hidden = false;
  const ctx = $('mem-add-ctx').value.trim();
  const topic = $('mem-add-topic').value.trim();
  try {
    const answer = await post('/bots/memory', {
      bot: memBot(), ctx, topic, keywords: $('mem-add-keywords').value.trim(), text: $('mem-add-text').value,
    });
    out.textContent = answer.out;
    $('mem-add-text').value = '';
    await loadContexts();
    await loadTopics(ctx);
    await loadMemos(topic);
  } catch (error) {
    out.textContent = error.message;
  }
});
onShow.memory = () => loadContexts().catch(failed);

// ---- console and chat (as before) ----------------------------------------------

$('command-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const line = $('command').value.trim();
  if (!line) return;
  try {
    const answer = await api('/interp', { method: 'POST', body: line });
    $('output').textContent += `> ${line}\n${answer}\n`;
  } catch (error) {
    $('output').textContent += `> ${line}\n${error.message}\n`;
  }
  $('output').scrollTop = $('output').scrollHeight;
  $('command').value = '';
});

let socket = null;

function showMessage(record) {
  const p = el('p', { class: record.kind === 'sys' ? 'sys' : '' });
  const who = record.to ? `${record.from} → ${record.to}` : record.from;
  p.textContent = `${who}: ${record.text}`;
  $('messages').append(p);
  $('messages').scrollTop = $('messages').scrollHeight;
}

function onChat(event) {
  const data = JSON.parse(event.data);
  if (data.type === 'joined') {
    $('channel').textContent = data.channel;
    $('messages').textContent = '';
    data.history.forEach(showMessage);
  } else if (data.type === 'msg') {
    showMessage(data.msg);
  } else if (data.type === 'roster') {
    $('roster').textContent = '';
    for (const name of data.users) $('roster').append(el('li', {}, name));
  } else if (data.type === 'error') {
    showMessage({ kind: 'sys', from: 'server', text: data.error });
  }
}

$('join-form').addEventListener('submit', (event) => {
  event.preventDefault();
  const name = $('name').value.trim();
  if (socket) socket.close();
  socket = new WebSocket(`ws://${location.host}/`);
  socket.onopen = () => socket.send(`join\ngeneral\n${name}`);
  socket.onmessage = onChat;
});

$('say-form').addEventListener('submit', (event) => {
  event.preventDefault();
  const text = $('say').value;
  if (!socket || !text) return;
  socket.send(`msg\n${text}`);
  $('say').value = '';
});

// ---- terminal (when this build has it) and the manual ---------------------------

async function offerTerminal() {
  const answer = await fetch('/ui/term.html');
  if (!answer.ok) return;
  $('terminal-tab').hidden = false;
  onShow.terminal = () => { if (!$('term-frame').src) $('term-frame').src = '/ui/term.html'; };
}

// Enough Markdown for the manual: headings, lists, code blocks, inline code, links.
function renderMarkdown(text) {
  const escape = (s) => s.replace(/&/g, '&amp;').replace(/</g, '&lt;').replace(/>/g, '&gt;');
  const inline = (s) => escape(s)
    .replace(/`([^`]+)`/g, '<code>$1</code>')
    .replace(/\*\*([^*]+)\*\*/g, '<strong>$1</strong>')
    .replace(/\[([^\]]+)\]\(([a-z0-9-]+)\.md\)/g, '<a href="#manual/$2" data-page="$2">$1</a>');
  const out = [];
  let list = false;
  let code = null;
  for (const line of text.split('\n')) {
    if (code !== null) {
      if (line.startsWith('```')) { out.push(`<pre>${escape(code.join('\n'))}</pre>`); code = null; } else code.push(line);
      continue;
    }
    if (line.startsWith('```')) { code = []; continue; }
    const item = /^\s*[-*] (.*)/.exec(line);
    if (list && !item) { out.push('</ul>'); list = false; }
    const heading = /^(#{1,4}) (.*)/.exec(line);
    if (heading) out.push(`<h${heading[1].length}>${inline(heading[2])}</h${heading[1].length}>`);
    else if (item) { if (!list) { out.push('<ul>'); list = true; } out.push(`<li>${inline(item[1])}</li>`); }
    else if (line.trim()) out.push(`<p>${inline(line)}</p>`);
  }
  if (list) out.push('</ul>');
  if (code !== null) out.push(`<pre>${escape(code.join('\n'))}</pre>`);
  return out.join('\n');
}

async function showManualPage(name) {
  const text = await query('/manual/page', { name });
  $('manual-page').innerHTML = renderMarkdown(text);
}

$('manual-page').addEventListener('click', (event) => {
  const link = event.target.closest('a[data-page]');
  if (!link) return;
  event.preventDefault();
  showManualPage(link.dataset.page).catch(failed);
});

onShow.manual = async () => {
  try {
    const answer = await api('/manual/list');
    pickList($('manual-list'), answer.pages.map((p) => p.title), (title) =>
      showManualPage(answer.pages.find((p) => p.title === title).name).catch(failed));
    if (!$('manual-page').textContent && answer.pages.length)
      await showManualPage((answer.pages.find((p) => p.name === 'getting-started') || answer.pages[0]).name);
  } catch (error) { failed(error); }
};

// ---- start ------------------------------------------------------------------------

async function start() {
  // Without the resident's cookie every call would answer 401: say how to get in.
  if ((await fetch('/auth').catch(() => null))?.status === 401) {
    showLocked();
    return;
  }
  try {
    const answer = await api('/health');
    $('health').textContent = `${answer.app} ${answer.version}`;
  } catch {
    $('health').textContent = 'not reachable';
  }
  offerTerminal().catch(() => {});
  const wanted = location.hash.slice(1);
  showTab(tabs.some((t) => t.dataset.tab === wanted) ? wanted : 'stores');
  api('/vc/pending').then((answer) => {
    $('emit-count').hidden = !answer.emits.length;
    $('emit-count').textContent = String(answer.emits.length);
  }).catch(() => {});
  watchChanges();
}

// Without the resident's cookie every call would answer 401: say how to get in.
async function checkAccess() {
  const answer = await fetch('/auth');
  if (answer.status !== 401) return true;
  const main = document.querySelector('main') || document.body;
  main.textContent = '';
  const note = document.createElement('p');
  note.id = 'locked';
  note.textContent = 'This resident only serves its owner. Run `kx gui` in a terminal: ' +
    'it opens this page with the key that lets your browser in.';
  main.appendChild(note);
  return false;
}

checkAccess().then((inside) => { if (inside) start(); });

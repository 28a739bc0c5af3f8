// The workstation page: a console that posts command lines to /interp, and the
// chat channels over one WebSocket.
'use strict';

const $ = (id) => document.getElementById(id);

async function checkHealth() {
  try {
    const answer = await (await fetch('/health')).json();
    $('health').textContent = `${answer.app} ${answer.version}`;
  } catch {
    $('health').textContent = 'not reachable';
  }
}

$('command-form').addEventListener('submit', async (event) => {
  event.preventDefault();
  const line = $('command').value.trim();
  if (!line) return;
  const answer = await fetch('/interp', { method: 'POST', body: line });
  $('output').textContent += `> ${line}\n${await answer.text()}\n`;
  $('output').scrollTop = $('output').scrollHeight;
  $('command').value = '';
});

let socket = null;

function show(record) {
  const p = document.createElement('p');
  if (record.kind === 'sys') p.className = 'sys';
  const who = record.to ? `${record.from} → ${record.to}` : record.from;
  p.textContent = `${who}: ${record.text}`;
  $('messages').appendChild(p);
  $('messages').scrollTop = $('messages').scrollHeight;
}

function onMessage(event) {
  const data = JSON.parse(event.data);
  if (data.type === 'joined') {
    $('channel').textContent = data.channel;
    $('messages').textContent = '';
    data.history.forEach(show);
  } else if (data.type === 'msg') {
    show(data.msg);
  } else if (data.type === 'roster') {
    $('roster').textContent = '';
    for (const name of data.users) {
      const li = document.createElement('li');
      li.textContent = name;
      $('roster').appendChild(li);
    }
  } else if (data.type === 'error') {
    show({ kind: 'sys', from: 'server', text: data.error });
  }
}

$('join-form').addEventListener('submit', (event) => {
  event.preventDefault();
  const name = $('name').value.trim();
  if (socket) socket.close();
  socket = new WebSocket(`ws://${location.host}/`);
  socket.onopen = () => socket.send(`join\ngeneral\n${name}`);
  socket.onmessage = onMessage;
});

$('say-form').addEventListener('submit', (event) => {
  event.preventDefault();
  const text = $('say').value;
  if (!socket || !text) return;
  socket.send(`msg\n${text}`);
  $('say').value = '';
});

// Without the resident's cookie every call would answer 401: say how to get in.
async function checkAccess() {
  const answer = await fetch('/auth');
  if (answer.status !== 401) return;
  const main = document.querySelector('main');
  main.textContent = '';
  const note = document.createElement('p');
  note.id = 'locked';
  note.textContent = 'This resident only serves its owner. Run `kx gui` in a terminal: ' +
    'it opens this page with the key that lets your browser in.';
  main.appendChild(note);
}

checkHealth();
checkAccess();

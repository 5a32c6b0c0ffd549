// The agent console: log in, pick or join a session, watch and act on the shared screen.
import { api, SessionLink } from './agent-link.js';
import { Screen } from './screen.js';
import { Tools } from './tools.js';

const $ = (id) => document.getElementById(id);
const kLoginKey = 'quorvix-console-login';
const kDrawingCapabilities = ['drawing', 'disappearing_ink', 'arrows', 'rectangles'];

let login = JSON.parse(sessionStorage.getItem(kLoginKey) ?? 'null');
let current = null; // { id, link, session }
let lobbyTimer = null;

const screen = new Screen($('screen'), {
  onNeedKeyFrame: () => current?.link.send('sync', {}),
  onError: (message) => notice(message),
  onResize: () => fitScreen(),
});

// The picture fills the width it has, and no more than most of the window's height.
function fitScreen() {
  const canvas = $('screen');
  const room = $('session-view').clientWidth || document.body.clientWidth;
  const scale = Math.min(room / canvas.width, (window.innerHeight * 0.75) / canvas.height);
  canvas.style.width = `${Math.floor(canvas.width * scale)}px`;
  canvas.style.height = `${Math.floor(canvas.height * scale)}px`;
}
window.addEventListener('resize', fitScreen);
const tools = new Tools({
  stage: $('stage'),
  screen: $('screen'),
  ink: $('ink'),
  laserDot: $('laser-dot'),
  send: (event, data) => current?.link.send(event, data),
  agentId: () => login?.agent.id ?? '',
  colour: () => $('colour').value,
  disappearing: () => $('disappearing').checked,
});

function notice(message) {
  const item = document.createElement('li');
  item.textContent = `${new Date().toLocaleTimeString()} ${message}`;
  $('notices').prepend(item);
  while ($('notices').children.length > 8) $('notices').lastChild.remove();
}

function show(view) {
  for (const id of ['login-view', 'lobby-view', 'session-view']) $(id).hidden = id !== view;
  $('logout').hidden = view === 'login-view';
  $('whoami').textContent = login ? `${login.agent.name}` : '';
  clearInterval(lobbyTimer);
  if (view === 'lobby-view') {
    refreshLobby();
    lobbyTimer = setInterval(refreshLobby, 3000);
  }
}

async function guarded(action) {
  try {
    return await action();
  } catch (error) {
    notice(error.message);
    if (error.status === 401) logout();
    return undefined;
  }
}

// ---- login and lobby ----

$('login-form').addEventListener('submit', (event) => {
  event.preventDefault();
  guarded(async () => {
    login = await api(null, 'POST', 'login', {
      license: $('license').value,
      name: $('agent-name').value,
      email: $('agent-email').value,
    });
    $('license').value = '';
    sessionStorage.setItem(kLoginKey, JSON.stringify(login));
    show('lobby-view');
  });
});

function logout() {
  leaveSession();
  login = null;
  sessionStorage.removeItem(kLoginKey);
  show('login-view');
}
$('logout').addEventListener('click', logout);

function cell(row, text) {
  const td = document.createElement('td');
  td.textContent = text ?? '';
  row.append(td);
  return td;
}

function actionCell(row, label, action) {
  const button = document.createElement('button');
  button.type = 'button';
  button.textContent = label;
  button.addEventListener('click', action);
  cell(row).append(button);
}

function deviceName(device) {
  if (!device) return '';
  return [device.app_name, device.device, device.os_version].filter(Boolean).join(' · ');
}

async function refreshLobby() {
  if (!login) return;
  const [sessions, devices] = await Promise.all([
    guarded(() => api(login.token, 'GET', 'sessions')),
    guarded(() => api(login.token, 'GET', 'devices')),
  ]);
  if (sessions) {
    const rows = sessions.sessions.map((s) => {
      const row = document.createElement('tr');
      cell(row, s.code);
      cell(row, s.state);
      cell(row, s.agent?.name ?? '—');
      cell(row, deviceName(s.device));
      cell(row, new Date(s.created).toLocaleTimeString());
      if (s.state !== 'ended' && (!s.agent || s.agent.id === login.agent.id))
        actionCell(row, s.agent ? `Open ${s.code}` : `Join ${s.code}`, () => join(s.code));
      else cell(row, s.ended_reason ?? '');
      return row;
    });
    $('session-list').replaceChildren(...rows);
  }
  if (devices) {
    const rows = devices.devices.map((d) => {
      const row = document.createElement('tr');
      cell(row, d.id);
      cell(row, deviceName(d.device));
      cell(row, d.online ? 'yes' : 'no');
      actionCell(row, `Request a session with ${d.id}`, () =>
        guarded(async () => {
          const session = await api(login.token, 'POST', `devices/${encodeURIComponent(d.id)}/sessions`);
          notice(session.notified ? `Asked ${d.id} for session ${session.code}` : `${d.id} is not listening; code ${session.code}`);
          openSession(session);
        }),
      );
      return row;
    });
    $('device-list').replaceChildren(...rows);
  }
}
$('refresh').addEventListener('click', refreshLobby);

$('join-form').addEventListener('submit', (event) => {
  event.preventDefault();
  join($('join-code').value.trim());
});

function join(code) {
  return guarded(async () => openSession(await api(login.token, 'POST', `sessions/${encodeURIComponent(code)}/join`)));
}

// ---- the session ----

function openSession(session) {
  leaveSession();
  screen.reset();
  $('notices').replaceChildren();
  const link = new SessionLink(session.id, login.token, {
    onEvent: (event, data) => onSessionEvent(event, data),
    onState: (state, code) => {
      if (state === 'open') link.send('sync', {});
      else if (current?.link === link) notice(`Connection to the service closed (${code}); reconnecting`);
    },
  });
  current = { id: session.id, link, session };
  show('session-view');
  fitScreen();
  renderSession(session);
  $('stage').focus({ preventScroll: true });
}

function leaveSession() {
  current?.link.close();
  current = null;
  tools.setTool('none');
}

$('back').addEventListener('click', () => {
  leaveSession();
  show('lobby-view');
});

function onSessionEvent(event, data) {
  if (event === 'session') {
    const before = current.session;
    if (data.revision < before.revision) return;
    current.session = data;
    for (const [field, label] of [
      ['state', 'Session'],
      ['full_device', 'Full device'],
      ['remote_control', 'Remote control'],
    ])
      if (before[field] !== data[field]) notice(`${label}: ${data[field]}`);
    renderSession(data);
  } else if (event === 'frame') {
    screen.push(data);
  } else if (event === 'alive') {
    if (typeof data.sent === 'number') notice(`Device answered the probe in ${Math.round(performance.now() - data.sent)} ms`);
  } else if (event === 'notice') {
    notice(data.message);
  }
}

function renderSession(s) {
  const active = s.state === 'active';
  const caps = s.capabilities ?? [];
  $('s-code').textContent = s.code;
  $('s-state').textContent = s.state === 'ended' ? `ended (${s.ended_reason ?? 'unknown'})` : s.state;
  $('s-device').textContent = s.device_connected ? deviceName(s.device) || 'connected' : 'not connected';
  $('s-full-device').textContent = s.full_device;
  $('s-remote-control').textContent = s.remote_control;
  $('s-capabilities').textContent = caps.join(', ') || '–';

  const asking = (state) => state === 'requested' || state === 'on';
  $('full-device').textContent = asking(s.full_device) ? 'Stop full device' : 'Request full device';
  $('full-device').disabled = !active;
  $('remote-control').textContent = asking(s.remote_control) ? 'Release remote control' : 'Request remote control';
  $('remote-control').disabled = !active;
  $('end').disabled = s.state === 'ended';
  $('clear').disabled = !active;
  $('probe').disabled = s.state === 'ended';

  const allowed = {
    none: true,
    control: active && s.remote_control === 'on',
    draw: active && caps.some((c) => kDrawingCapabilities.includes(c)),
    laser: active && caps.includes('laser'),
  };
  for (const input of document.querySelectorAll('input[name="tool"]')) input.disabled = !allowed[input.value];
  if (!allowed[tools.tool]) {
    document.querySelector('input[name="tool"][value="none"]').checked = true;
    tools.setTool('none');
  }
}

async function putSession(body) {
  if (!current) return;
  const session = await guarded(() => api(login.token, 'PUT', `sessions/${current.id}`, body));
  if (session && current && session.id === current.id && session.revision > current.session.revision)
    onSessionEvent('session', { ...current.session, ...session });
}

$('full-device').addEventListener('click', () => {
  const on = ['requested', 'on'].includes(current?.session.full_device);
  putSession({ full_device: on ? 'off' : 'requested' });
});
$('remote-control').addEventListener('click', () => {
  const on = ['requested', 'on'].includes(current?.session.remote_control);
  putSession({ remote_control: on ? 'off' : 'requested' });
});
$('end').addEventListener('click', () => putSession({ state: 'ended' }));
$('probe').addEventListener('click', () => {
  if (!current?.link.send('probe', { sent: performance.now() })) notice('Not connected to the service');
});
$('clear').addEventListener('click', () => tools.clear());
for (const input of document.querySelectorAll('input[name="tool"]'))
  input.addEventListener('change', () => tools.setTool(input.value));

// ---- numbers ----

function formatBytes(n) {
  if (n >= 1e6) return `${(n / 1e6).toFixed(1)} M`;
  if (n >= 1e3) return `${(n / 1e3).toFixed(1)} k`;
  return String(n);
}

setInterval(() => {
  if (!current) return;
  const s = screen.stats();
  $('stat-fps').textContent = String(s.fps);
  $('stat-bps').textContent = formatBytes(s.bytesPerSecond);
  $('stat-age').textContent = s.ageMs === null ? '–' : `${(s.ageMs / 1000).toFixed(1)} s ago`;
  $('stat-frames').textContent = String(s.frames);
  $('stat-codec').textContent = s.codec ?? '–';
  $('stat-size').textContent = `${s.width}×${s.height}`;
}, 250);

// For measurements and the end-to-end tests: the screen with its counts and recent frames, and
// the session being watched with its link.
window.quorvixConsole = {
  screen,
  session: () => current?.session ?? null,
  link: () => current?.link ?? null,
};

show(login ? 'lobby-view' : 'login-view');

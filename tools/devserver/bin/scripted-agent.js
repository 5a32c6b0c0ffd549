#!/usr/bin/env node
// A scripted agent and a scripted user for the demo and the end-to-end tests: joins the session
// with the given code through the agent API, answers the consent dialogs on the X display as the
// user would (by keyboard), asks for the whole desktop and for remote control, clicks the demo
// window's "Say hello" button and types into it, then ends the session. Prints one line per
// step and a summary as JSON on the last line; exits non-zero when a step does not happen in
// time.
//
//   scripted-agent.js --api URL --code CODE --display :N [--license KEY] [--type TEXT]
//                     [--screenshot FILE]   (a PNG of the X screen once the text has landed)
import { execFileSync } from 'node:child_process';
import { Encoder, Decoder } from 'cbor-x';
import { agentLogin, within as withinBound } from './agent-kit.js';

const args = Object.fromEntries(
  process.argv.slice(2).reduce((pairs, arg, i, all) => (i % 2 === 0 ? [...pairs, [arg.replace(/^--/, ''), all[i + 1]]] : pairs), []),
);
const base = args.api;
const license = args.license ?? 'quorvix-dev-license';
const text = args.type ?? 'hi';
const kStepTimeout = 15_000;
const encoder = new Encoder({ useRecords: false, tagUint8Array: false, variableMapSize: true, useTag259ForMaps: false });
const decoder = new Decoder({ useRecords: false, int64AsNumber: true });
const started = Date.now();
const summary = { frames: 0, bytes: 0, mime_types: [], injected: 0, steps: [] };

function step(what) {
  summary.steps.push(what);
  console.log(`[${((Date.now() - started) / 1000).toFixed(1)} s] ${what}`);
}

const within = (promise, what, ms = kStepTimeout) => withinBound(promise, what, ms);

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
const onDisplay = (command, ...rest) =>
  execFileSync(command, rest, { env: { ...process.env, DISPLAY: args.display }, stdio: ['ignore', 'pipe', 'ignore'] }).toString();

// Waits for the consent dialog with that title, then answers it: focus starts on Deny, so Tab
// moves to Allow and Return presses it.
async function allow(title) {
  await within(
    (async () => {
      for (;;) {
        try {
          const id = onDisplay('xdotool', 'search', '--name', `^${title}$`).trim().split('\n')[0];
          if (id) return id;
        } catch {
          // not there yet
        }
        await sleep(100);
      }
    })(),
    `the "${title}" dialog`,
  );
  await sleep(300);
  onDisplay('xdotool', 'key', 'Tab', 'Return');
  step(`the user allowed "${title}"`);
}

async function main() {
  const login = await agentLogin(base, license, 'Ada Agent');
  const { call } = login;
  const joined = await call('POST', `sessions/${args.code}/join`);
  if (joined.status !== 200) throw new Error(`join answered ${joined.status}`);
  const id = joined.body.id;
  step(`agent joined session ${args.code}`);

  const ws = login.socket(id);
  let session = joined.body;
  const waiters = [];
  const check = () => {
    for (const w of [...waiters]) if (w.test()) waiters.splice(waiters.indexOf(w), 1) && w.resolve();
  };
  const until = (test, what, ms) => {
    const waiter = { test };
    return within(new Promise((resolve) => { waiter.resolve = resolve; waiters.push(waiter); check(); }), what, ms).finally(() => {
      if (waiters.includes(waiter)) waiters.splice(waiters.indexOf(waiter), 1);
    });
  };
  ws.on('message', (bytes) => {
    const { event, data } = decoder.decode(bytes);
    if (event === 'session') session = data;
    if (event === 'notice') step(`service: ${data.message}`);
    if (event === 'frame') {
      summary.frames++;
      summary.bytes += data.data.length;
      if (!summary.mime_types.includes(data.mime_type)) summary.mime_types.push(data.mime_type);
    }
    check();
  });
  const send = (event, data) => ws.send(encoder.encode({ event, data }));
  await within(new Promise((resolve, reject) => { ws.once('open', resolve); ws.once('error', reject); }), 'the agent socket');

  await allow('Support Request');
  await until(() => session.state === 'active', 'the session to become active');
  step('session active');
  await until(() => summary.frames > 0, 'the first frame');
  step(`first frame: ${summary.mime_types[0]}`);

  await call('PUT', `sessions/${id}`, { full_device: 'requested' });
  await allow('Full device screenshare');
  await until(() => session.full_device === 'on', 'full-device sharing');
  step('whole desktop shared');

  const drawing = { type: 'Laser', id: 'laser', state: 'touchmove', x: 0.5, y: 0.5, colour: '#ff00ff' };
  send('laser', drawing);
  send('laser', { ...drawing, state: 'touchend' });
  step('laser shown and hidden');

  await call('PUT', `sessions/${id}`, { remote_control: 'requested' });
  await allow('Remote Control Request');
  await until(() => session.remote_control === 'on', 'remote control');
  step('remote control on');
  const timestamp = () => new Date().toISOString().replace('Z', '+0000');
  // "Say hello" sits at (20..160, 120..160) in the demo window, wherever the window manager put it.
  const window = onDisplay('xdotool', 'search', '--name', '^Quorvix demo$').trim().split('\n')[0];
  // xwininfo's absolute corner; xdotool's geometry counts a window manager's frame twice.
  const info = onDisplay('xwininfo', '-id', window);
  const corner = (axis) => Number(new RegExp(`Absolute upper-left ${axis}:\\s+(-?\\d+)`).exec(info)[1]);
  const geometry = { X: corner('X'), Y: corner('Y') };
  const root = onDisplay('xdotool', 'getdisplaygeometry').trim().split(' ').map(Number);
  const at = { x: (Number(geometry.X) + 90) / root[0], y: (Number(geometry.Y) + 140) / root[1] };
  // The device learns of the answer from its own request's reply, which may come after the
  // service told the agent. Move the pointer onto the button until a frame shows the moved
  // cursor: then the device is taking input.
  let nudge = 0;
  const move = () => {
    nudge = nudge ? 0 : 0.005;  // somewhere new each time, so that every move changes the picture
    send('mouse', { type: 'Mouse', id: 'click', state: 'mousemove', button: 0, x: at.x + nudge, y: at.y, timestamp: timestamp() });
  };
  await within(
    (async () => {
      for (;;) {
        const before = summary.frames;
        move();
        summary.injected++;
        try {
          await until(() => summary.frames > before, 'a frame', 500);
          return;
        } catch {
          // not yet: move again
        }
      }
    })(),
    'the device to take input',
  );
  step('the device follows the pointer');
  for (const state of ['mousedown', 'mouseup'])
    send('mouse', { type: 'Mouse', id: 'click', state, button: 0, ...at, timestamp: timestamp() });
  summary.injected += 2;
  for (const ch of text) {
    const code = /[a-z]/i.test(ch) ? `Key${ch.toUpperCase()}` : /[0-9]/.test(ch) ? `Digit${ch}` : 'Space';
    for (const state of ['keydown', 'keyup']) send('keypress', { type: 'KeyPress', key: ch, code, state });
    summary.injected += 2;
  }
  step(`clicked "Say hello" and typed "${text}"`);
  const framesBefore = summary.frames;
  // The click changes the window: its picture is the sign the input landed before the end.
  await until(() => summary.frames > framesBefore, 'a frame after the input');
  if (args.screenshot) {
    execFileSync('ffmpeg', ['-loglevel', 'error', '-y', '-f', 'x11grab', '-i', args.display, '-frames:v', '1', args.screenshot]);
    step(`screenshot of the X screen: ${args.screenshot}`);
  }

  await call('PUT', `sessions/${id}`, { state: 'ended' });
  await until(() => session.state === 'ended', 'the end of the session');
  step('session ended by the agent');
  summary.seconds = (Date.now() - started) / 1000;
  ws.close();
  console.log(JSON.stringify(summary));
}

main().then(
  () => process.exit(0),
  (error) => {
    console.error(`scripted agent: ${error.message}`);
    process.exit(1);
  },
);

// The soak run: the demo host reaches the reference service through the fault proxy; this
// script is the agent (and the user answering the consent dialogs) and the one who breaks
// things. It keeps the session active with remote control on, watches the frames, holds a key
// and a mouse button before every fault, and then:
//   - every CUT seconds the proxy cuts the connections: a clean cut (FIN and RST in turn), a
//     cut in the middle of a message, a stall, in turn;
//   - every RESTART seconds (offset by 15 s) the service is killed by its PID and started again
//     on the same port and state file.
// After each fault it records how long until nothing is held on the X server (drops only) and
// until frames resume; at the end it checks the session is the one it started with, that no
// frame arrived older than the bound, and that the host's memory and threads stayed flat.
//
//   node soak-agent.js --host-bin FILE --watch-bin FILE --devserver DIR --proxy FILE
//                      --display :N --work DIR [--seconds 300] [--cut-every 30]
//                      [--restart-every 120] [--codecs video/avc]
//                      [--cut-kinds clean,mid,stall] [--stall-ms 5000]
// Prints one JSON line per fault and a summary as JSON on the last line; exits 1 on a failed
// check.
import { spawn, execFileSync } from 'node:child_process';
import { createRequire } from 'node:module';
import fs from 'node:fs';
import path from 'node:path';
import readline from 'node:readline';
import { pathToFileURL } from 'node:url';

const args = Object.fromEntries(
  process.argv.slice(2).reduce((pairs, arg, i, all) => (i % 2 === 0 ? [...pairs, [arg.replace(/^--/, ''), all[i + 1]]] : pairs), []),
);
const require = createRequire(path.resolve(args.devserver, 'package.json'));
const { agentLogin } = await import(pathToFileURL(path.resolve(args.devserver, 'bin/agent-kit.js')).href);
const WebSocket = require('ws');
const { Encoder, Decoder } = require('cbor-x');

const kSeconds = Number(args.seconds ?? 300);
const kCutEvery = Number(args['cut-every'] ?? 30);
const kRestartEvery = Number(args['restart-every'] ?? 120);
// The library's stream socket retries after 0.5-1.5 s, then after delays growing as
// (0.3 n)^1.2 x 1-1.5 s; a service back within a few seconds is reached within 10 s.
const kBoundMs = 10_000;
const kStallMs = Number(args['stall-ms'] ?? 5_000);
const kMidCutBytes = 3_000;
// Flat: what a reconnect may leave behind while it finishes, not a trend.
const kRssToleranceKiB = 16 * 1024;
const kThreadTolerance = 1;
const kLicense = 'soak-license';

const started = Date.now();
const elapsed = () => ((Date.now() - started) / 1000).toFixed(1);
const log = (line) => console.log(`[${elapsed()} s] ${line}`);
const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));
const failures = [];
const fail = (what) => {
  failures.push(what);
  log(`FAIL: ${what}`);
};
const children = new Set();

// Starts a child with its standard output read line by line (and kept in a file), and its
// standard error in a file.
function start(name, command, argv, env = {}) {
  const child = spawn(command, argv, {
    env: { ...process.env, ...env },
    stdio: ['ignore', 'pipe', fs.openSync(path.join(args.work, `${name}.err`), 'a')],
  });
  children.add(child);
  child.exited = new Promise((resolve) => child.on('exit', (code, signal) => resolve({ code, signal })));
  child.exited.then(() => children.delete(child));
  child.lines = [];
  child.listeners = [];
  const out = fs.createWriteStream(path.join(args.work, `${name}.out`), { flags: 'a' });
  readline.createInterface({ input: child.stdout }).on('line', (line) => {
    out.write(`${line}\n`);
    child.lines.push({ at: Date.now(), line });
    for (const listener of [...child.listeners]) listener(line);
  });
  return child;
}

// Resolves with the first line (already seen or to come) matching `regex`, or rejects.
function lineOf(child, regex, ms, what) {
  const seen = child.lines.find((l) => regex.test(l.line));
  if (seen) return Promise.resolve(regex.exec(seen.line));
  return new Promise((resolve, reject) => {
    const listener = (line) => {
      if (!regex.test(line)) return;
      clearTimeout(timer);
      child.listeners.splice(child.listeners.indexOf(listener), 1);
      resolve(regex.exec(line));
    };
    const timer = setTimeout(() => {
      child.listeners.splice(child.listeners.indexOf(listener), 1);
      reject(new Error(`timed out waiting for ${what}`));
    }, ms);
    child.listeners.push(listener);
  });
}

// Polls `test` every 20 ms for at most `ms`; the time it first held, or null.
async function until(test, ms) {
  const deadline = Date.now() + ms;
  for (;;) {
    if (test()) return Date.now();
    if (Date.now() >= deadline) return null;
    await sleep(20);
  }
}

const onDisplay = (command, ...rest) =>
  execFileSync(command, rest, { env: { ...process.env, DISPLAY: args.display }, stdio: ['ignore', 'pipe', 'ignore'] }).toString();

async function allow(title) {
  const found = await until(() => {
    try {
      return onDisplay('xdotool', 'search', '--name', `^${title}$`).trim() !== '';
    } catch {
      return false;
    }
  }, 15_000);
  if (!found) {
    let names = '';
    try {
      const ids = onDisplay('xdotool', 'search', '--onlyvisible', '--name', '.').trim().split('\n');
      names = ids.map((id) => onDisplay('xdotool', 'getwindowname', id).trim()).join(' | ');
    } catch {
      // nothing visible
    }
    throw new Error(`no "${title}" dialog; visible windows: ${names}`);
  }
  await sleep(300);
  onDisplay('xdotool', 'key', 'Tab', 'Return');
  log(`the user allowed "${title}"`);
}

function resources(pid) {
  const status = fs.readFileSync(`/proc/${pid}/status`, 'utf8');
  return { rss_kib: Number(/VmRSS:\s+(\d+)/.exec(status)[1]), threads: Number(/Threads:\s+(\d+)/.exec(status)[1]) };
}

// The frame's own timestamp: second precision, with its UTC offset.
const frameTime = (text) => Date.parse(text);

async function main() {
  fs.mkdirSync(args.work, { recursive: true });
  const proxy = start('proxy', process.execPath, [args.proxy]);
  const proxyPort = Number((await lineOf(proxy, /^faultproxy listening on 127\.0\.0\.1:(\d+)$/, 10_000, 'the proxy'))[1]);
  const control = (await lineOf(proxy, /^faultproxy control on (\S+)$/, 10_000, 'the proxy control'))[1];
  const proxyUrl = `http://127.0.0.1:${proxyPort}/`;
  const command = async (route, method = 'POST') => (await fetch(new URL(route, control), { method })).json();

  // The service announces its public address, the proxy's: the port it is bound to comes from
  // a first start on port 0 without one, stopped at once; every later start reuses that port.
  const probe = start('service', process.execPath, [
    path.join(args.devserver, 'bin/devserver.js'),
    '--port', '0', '--license', kLicense, '--state', path.join(args.work, 'probe-state.json'), '--log-level', 'warn',
  ]);
  let servicePort = Number(new URL((await lineOf(probe, /^devserver listening on (\S+)$/, 15_000, 'the service'))[1]).port);
  probe.kill('SIGTERM');
  await probe.exited;
  let service;
  const startService = async () => {
    service = start('service', process.execPath, [
      path.join(args.devserver, 'bin/devserver.js'),
      '--port', String(servicePort), '--license', kLicense, '--state', path.join(args.work, 'state.json'),
      '--public-url', proxyUrl, '--video-codecs', args.codecs ?? 'video/avc', '--log-level', args['service-log'] ?? 'warn',
    ]);
    await lineOf(service, /^devserver listening on (\S+)$/, 15_000, 'the service');
  };
  await startService();
  const base = `http://127.0.0.1:${servicePort}/`;
  await command(`target?to=127.0.0.1:${servicePort}`);
  log(`service ${base} behind the proxy ${proxyUrl}`);

  const watch = start('watch', args['watch-bin'], [args.display]);
  let held = null;
  watch.listeners.push((line) => (held = line !== 'held none'));
  await lineOf(watch, /^held /, 10_000, 'the input watcher');
  held = watch.lines.at(-1).line !== 'held none';

  // A keychain of its own: the device id and session mirror of other hosts on the machine stay
  // out of it.
  const host = start('host', args['host-bin'], ['--api', proxyUrl, '--license', kLicense, '--display', args.display], {
    QUORVIX_DEMO_LOG: '1',
    XDG_DATA_HOME: path.join(args.work, 'data'),
  });
  const code = (await lineOf(host, /^session code: (\d+)$/, 30_000, 'the session code'))[1];
  log(`session code ${code}, host pid ${host.pid}`);

  // The agent, on the service directly.
  const login = await agentLogin(base, kLicense, 'Soak Agent');
  const { call } = login;
  const joined = await call('POST', `sessions/${code}/join`);
  if (joined.status !== 200) throw new Error(`join answered ${joined.status}`);
  const sessionId = joined.body.id;
  let session = joined.body;
  const frames = { count: 0, last: 0, lastStamp: 0, maxAgeMs: 0, late: 0 };
  const encoder = new Encoder({ useRecords: false, tagUint8Array: false, variableMapSize: true, useTag259ForMaps: false });
  const decoder = new Decoder({ useRecords: false, int64AsNumber: true });
  let ws = null;
  let stopping = false;
  // The agent's own socket reconnects at once: the service restarts under it too.
  const connect = () => {
    const socket = new WebSocket(new URL(`agent/1/sessions/${sessionId}/ws`, base).href.replace(/^http/, 'ws'), [
      'quorvix-agent.1',
      `token.${login.token}`,
    ]);
    socket.on('open', () => {
      ws = socket;
      socket.send(encoder.encode({ event: 'sync', data: {} }));
    });
    socket.on('message', (bytes) => {
      const { event, data } = decoder.decode(bytes);
      if (event === 'session') session = data;
      if (event === 'frame') {
        const now = Date.now();
        const stamp = frameTime(data.timestamp);
        // The stamp has whole seconds: the frame may be up to a second older than it says.
        const age = now - stamp;
        frames.maxAgeMs = Math.max(frames.maxAgeMs, age);
        if (age > kBoundMs + 1000) frames.late++;
        frames.count++;
        frames.last = now;
        frames.lastStamp = stamp;
      }
    });
    socket.on('error', () => {});
    socket.on('close', () => {
      if (ws === socket) ws = null;
      if (!stopping) setTimeout(connect, 200);
    });
  };
  connect();
  const send = (event, data) => ws?.send(encoder.encode({ event, data }));

  // The library fetches the session when its control socket opens and only then asks for
  // pushes: a join landing between the two never reaches it, and the session waits forever. A
  // change of the agent's pushes the session again; counted, since it is the library's fault.
  let missedJoins = 0;
  while (!(await until(() => session.state !== 'pending', 3_000)) && missedJoins < 3) {
    missedJoins++;
    log('the host did not see the agent join: pushing the session again');
    await call('PUT', `sessions/${sessionId}`, { remote_control: 'off' });
  }
  await allow('Support Request');
  if (!(await until(() => session.state === 'active', 15_000))) throw new Error('the session did not become active');
  await call('PUT', `sessions/${sessionId}`, { full_device: 'requested' });
  await allow('Full device screenshare');
  if (!(await until(() => session.full_device === 'on', 15_000))) throw new Error('no full-device sharing');
  await call('PUT', `sessions/${sessionId}`, { remote_control: 'requested' });
  await allow('Remote Control Request');
  if (!(await until(() => session.remote_control === 'on', 15_000))) throw new Error('no remote control');
  log('session active, whole desktop, remote control on');

  // A blank spot of the demo window, below its buttons, as fractions of the screen.
  const window = onDisplay('xdotool', 'search', '--name', '^Quorvix demo$').trim().split('\n')[0];
  const info = onDisplay('xwininfo', '-id', window);
  const corner = (axis) => Number(new RegExp(`Absolute upper-left ${axis}:\\s+(-?\\d+)`).exec(info)[1]);
  const root = onDisplay('xdotool', 'getdisplaygeometry').trim().split(' ').map(Number);
  const spot = { x: (corner('X') + 380) / root[0], y: (corner('Y') + 190) / root[1] };
  const timestamp = () => new Date().toISOString().replace('Z', '+0000');
  const mouse = (state, dx = 0) =>
    send('mouse', { type: 'Mouse', id: 'soak', state, button: 0, x: spot.x + dx, y: spot.y, timestamp: timestamp() });
  const key = (state) => send('keypress', { type: 'KeyPress', key: 'Shift', code: 'ShiftLeft', state });
  // The moving pointer keeps the picture changing, so frames keep coming.
  let nudge = 0;
  const nudger = setInterval(() => {
    nudge = (nudge + 1) % 4;
    mouse('mousemove', nudge * 0.002);
  }, 250);
  if (!(await until(() => frames.count > 0, 15_000))) throw new Error('no frame');

  // Warm-up, then the starting figures.
  await sleep(10_000);
  const first = resources(host.pid);
  const samples = [{ at: Number(elapsed()), ...first }];
  log(`host at start: ${first.rss_kib} KiB resident, ${first.threads} threads`);

  const schedule = [];
  for (let t = kCutEvery; t <= kSeconds - 15; t += kCutEvery) schedule.push({ at: t, kind: 'cut' });
  for (let t = kRestartEvery + 15; t <= kSeconds - 15; t += kRestartEvery) schedule.push({ at: t, kind: 'restart' });
  schedule.sort((a, b) => a.at - b.at);
  const cutKinds = (args['cut-kinds'] ?? 'clean,mid,stall').split(',');
  let cuts = 0;
  let cleanCuts = 0;
  const records = [];

  for (const planned of schedule) {
    const wait = started + planned.at * 1000 - Date.now();
    if (wait > 0) await sleep(wait);
    const kind = planned.kind === 'restart' ? 'restart' : cutKinds[cuts++ % cutKinds.length];
    const record = { kind, at_s: Number(elapsed()) };

    // Hold a key and the left button, and see the X server hold them.
    let holding = null;
    for (let attempt = 0; attempt < 5 && !holding; attempt++) {
      mouse('mousedown');
      key('keydown');
      holding = await until(() => held === true && /buttons=0x1\d\d/.test(watch.lines.at(-1).line), 2_000);
    }
    if (!holding) fail(`${kind} at ${record.at_s} s: the agent's key and button were not held before the fault`);

    const faultStart = Date.now();
    let faultEnd = faultStart;
    const drop = kind !== 'stall';
    if (kind === 'clean') {
      record.mode = cleanCuts++ % 2 ? 'rst' : 'fin';
      record.connections = (await command(`cut?mode=${record.mode}`)).cut;
    } else if (kind === 'mid') {
      const before = (await command('stats', 'GET')).cut_mid;
      record.armed = (await command(`cut-after?bytes=${kMidCutBytes}&mode=rst`)).armed;
      let fired = false;
      // The stream carries frames all the time: it is the one cut first.
      for (let i = 0; i < 200 && !fired; i++) {
        fired = (await command('stats', 'GET')).cut_mid > before;
        if (!fired) await sleep(20);
      }
      await command('disarm');
      if (!fired) fail(`mid cut at ${record.at_s} s: no connection carried ${kMidCutBytes} bytes`);
      // Drops count from the arming (the stream's frames spend the bytes within milliseconds),
      // frames from the moment the cut was seen.
      faultEnd = Date.now();
      record.fired_ms = faultEnd - faultStart;
    } else if (kind === 'stall') {
      await command(`stall?ms=${kStallMs}`);
      faultEnd = faultStart + kStallMs;
    } else {
      const old = service;
      old.kill('SIGKILL');
      await old.exited;
      await startService();
      faultEnd = Date.now();
      record.down_ms = faultEnd - faultStart;
    }

    if (drop) {
      // The watcher's own line says when: a restart takes a while, and the release comes during it.
      const release = () => watch.lines.find((l) => l.at >= faultStart && l.line === 'held none');
      if ((await until(() => release() && release().at <= faultStart + kBoundMs, kBoundMs)) === null)
        fail(`${kind} at ${record.at_s} s: key or button still held ${kBoundMs} ms after the drop`);
      // A mid-message cut counts from the moment it was seen, not from its arming.
      else record.released_ms = Math.max(0, release().at - faultStart - (record.fired_ms ?? 0));
    }
    if (!drop) {
      await sleep(Math.max(0, faultEnd - Date.now()));
      // Not a drop for the library until its ping goes unanswered: whether it let go meanwhile.
      const release = watch.lines.find((l) => l.at >= faultStart && l.at < faultEnd && l.line === 'held none');
      if (release) record.released_during_stall_ms = release.at - faultStart;
    }
    const resumed = await until(() => frames.last > faultEnd && frames.lastStamp >= Math.floor(faultEnd / 1000) * 1000, kBoundMs + 5_000);
    if (resumed === null) fail(`${kind} at ${record.at_s} s: no fresh frame within ${(kBoundMs + 5_000) / 1000} s after the fault`);
    else {
      record.recovered_ms = resumed - faultEnd;
      if (record.recovered_ms > kBoundMs) fail(`${kind} at ${record.at_s} s: frames resumed after ${record.recovered_ms} ms`);
    }
    // Let go of whatever is still held (after a stall: everything), and see it let go.
    mouse('mouseup');
    key('keyup');
    if ((await until(() => held === false, kBoundMs)) === null) fail(`${kind} at ${record.at_s} s: the agent's release did not land`);
    const sample = resources(host.pid);
    samples.push({ at: Number(elapsed()), ...sample });
    Object.assign(record, sample);
    records.push(record);
    console.log(JSON.stringify(record));
  }
  // The last stretch runs without faults, to the run's full length.
  const rest = started + kSeconds * 1000 - Date.now();
  if (rest > 0) await sleep(rest);
  clearInterval(nudger);
  const proxyStats = await command('stats', 'GET');

  // The end: the same session, still active, the only one; flat memory and threads.
  const last = resources(host.pid);
  const current = await call('GET', `sessions/${sessionId}`);
  const all = await call('GET', 'sessions');
  if (current.body.state !== 'active') fail(`the session is ${current.body.state} at the end`);
  const sessions = all.body.sessions ?? [];
  if (sessions.length !== 1 || sessions[0].id !== sessionId)
    fail(`the service holds ${sessions.length} sessions: ${sessions.map((s) => s.id).join(', ')}`);
  if (frames.late > 0) fail(`${frames.late} frames arrived more than ${kBoundMs / 1000} s after their timestamp`);
  if (last.rss_kib - first.rss_kib > kRssToleranceKiB) fail(`resident memory grew from ${first.rss_kib} to ${last.rss_kib} KiB`);
  if (Math.abs(last.threads - first.threads) > kThreadTolerance) fail(`threads went from ${first.threads} to ${last.threads}`);

  await call('PUT', `sessions/${sessionId}`, { state: 'ended' });
  await lineOf(host, /^session ended$/, 15_000, 'the host to see the end').catch((e) => fail(e.message));
  const exit = await Promise.race([host.exited, sleep(10_000).then(() => null)]);
  if (!exit || exit.code !== 0) fail(`the host did not exit cleanly: ${JSON.stringify(exit)}`);
  stopping = true;
  ws?.close();

  const drops = records.filter((r) => r.released_ms !== undefined);
  const summary = {
    seconds: Number(elapsed()),
    session: sessionId,
    missed_joins: missedJoins,
    faults: records.length,
    by_kind: Object.fromEntries(['clean', 'mid', 'stall', 'restart'].map((k) => [k, records.filter((r) => r.kind === k).length])),
    recovered: records.filter((r) => r.recovered_ms !== undefined && r.recovered_ms <= kBoundMs).length,
    worst_recovery_ms: Math.max(0, ...records.map((r) => r.recovered_ms ?? Infinity)),
    worst_release_ms: Math.max(0, ...drops.map((r) => r.released_ms)),
    bound_ms: kBoundMs,
    frames: frames.count,
    max_frame_age_ms: frames.maxAgeMs,
    host_start: first,
    host_end: last,
    proxy: proxyStats,
    failures,
  };
  console.log(JSON.stringify(summary));
  return failures.length === 0;
}

const stopAll = async () => {
  for (const child of children) child.kill('SIGTERM');
  await Promise.race([Promise.all([...children].map((c) => c.exited)), sleep(5_000)]);
  for (const child of children) child.kill('SIGKILL');
};

for (const signal of ['SIGTERM', 'SIGINT'])
  process.on(signal, async () => {
    console.error(`soak: stopped by ${signal}`);
    await stopAll();
    process.exit(1);
  });

main().then(
  async (ok) => {
    await stopAll();
    process.exit(ok ? 0 : 1);
  },
  async (error) => {
    console.error(`soak: ${error.message}`);
    await stopAll();
    process.exit(1);
  },
);

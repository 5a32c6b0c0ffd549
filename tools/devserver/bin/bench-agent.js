#!/usr/bin/env node
// The agent of the whole-session benchmarks: joins the session with the given code, asks for the
// whole desktop, waits for the picture to settle, then takes a measured window of frames (or of
// seconds) and prints one JSON line: frames, bytes, the host's and the X server's CPU over the
// window (read from /proc, same machine), the host's resident memory, and each frame's arrival
// time. Saves what it received, so that it can be decoded afterwards.
//
//   bench-agent.js --api URL --code CODE [--license KEY] --host-pid PID [--xvfb-pid PID]
//                  [--frames N | --seconds S] [--settle S] [--save FILE] [--arrivals FILE]
// --frames 0 measures nothing: --save then keeps what arrived while settling.
import fs from 'node:fs';
import WebSocket from 'ws';
import { Encoder, Decoder } from 'cbor-x';

const args = Object.fromEntries(
  process.argv.slice(2).reduce((pairs, arg, i, all) => (i % 2 === 0 ? [...pairs, [arg.replace(/^--/, ''), all[i + 1]]] : pairs), []),
);
const base = args.api;
const license = args.license ?? 'quorvix-dev-license';
const frameTarget = args.seconds ? Infinity : Number(args.frames ?? 300);
const settleMs = Number(args.settle ?? 4) * 1000;
const kTimeout = 60_000 + (args.seconds ? Number(args.seconds) * 1000 : frameTarget * 400);
const encoder = new Encoder({ useRecords: false, tagUint8Array: false, variableMapSize: true, useTag259ForMaps: false });
const decoder = new Decoder({ useRecords: false, int64AsNumber: true });
const ticksPerSecond = 100; // USER_HZ on Linux

// User + system time of every thread of a process, in milliseconds.
function cpuMs(pid) {
  const stat = fs.readFileSync(`/proc/${pid}/stat`, 'utf8');
  const fields = stat.slice(stat.lastIndexOf(')') + 2).split(' ');
  return ((Number(fields[11]) + Number(fields[12])) * 1000) / ticksPerSecond;
}
// On-CPU time of every thread from the scheduler, in milliseconds: finer than the tick counts.
function schedMs(pid) {
  let ns = 0;
  for (const task of fs.readdirSync(`/proc/${pid}/task`)) {
    try {
      ns += Number(fs.readFileSync(`/proc/${pid}/task/${task}/schedstat`, 'utf8').split(' ')[0]);
    } catch {
      // the thread ended meanwhile
    }
  }
  return ns / 1e6;
}
function status(pid, key) {
  const line = fs.readFileSync(`/proc/${pid}/status`, 'utf8').split('\n').find((l) => l.startsWith(`${key}:`));
  return line ? Number(line.split(/\s+/)[1]) : 0;
}

async function main() {
  const hostPid = Number(args['host-pid']);
  const xvfbPid = args['xvfb-pid'] ? Number(args['xvfb-pid']) : 0;
  const login = await (
    await fetch(new URL('agent/1/login', base), {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify({ license, name: 'Bench Agent' }),
    })
  ).json();
  const call = async (method, route, payload) => {
    const r = await fetch(new URL(`agent/1/${route}`, base), {
      method,
      headers: { Authorization: `Bearer ${login.token}`, 'Content-Type': 'application/json' },
      body: payload === undefined ? undefined : JSON.stringify(payload),
    });
    return { status: r.status, body: await r.json() };
  };
  const joined = await call('POST', `sessions/${args.code}/join`);
  if (joined.status !== 200) throw new Error(`join answered ${joined.status}`);
  const id = joined.body.id;
  const ws = new WebSocket(new URL(`agent/1/sessions/${id}/ws`, base).href.replace(/^http/, 'ws'), [
    'quorvix-agent.1',
    `token.${login.token}`,
  ]);
  let session = joined.body;
  let phase = 'joining'; // then 'settling', 'measuring', 'done'
  const saved = [];
  const window = { frames: 0, bytes: 0, arrivals: [], mime: '' };
  let start = null;
  let finish;
  const finished = new Promise((resolve) => (finish = resolve));
  const sample = () => ({
    at: performance.now(),
    host: schedMs(hostPid),
    hostTicks: cpuMs(hostPid),
    xvfb: xvfbPid ? schedMs(xvfbPid) : 0,
  });
  ws.on('message', (bytes) => {
    const { event, data } = decoder.decode(bytes);
    if (event === 'session') session = data;
    if (event !== 'frame') return;
    if (phase !== 'done') saved.push(data.data);
    if (phase !== 'measuring') return;
    window.frames++;
    window.bytes += data.data.length;
    window.mime = data.mime_type;
    window.arrivals.push(Date.now());
    if (window.frames >= frameTarget) finish();
  });
  const send = (event, data) => ws.send(encoder.encode({ event, data }));
  await new Promise((resolve, reject) => {
    ws.once('open', resolve);
    ws.once('error', reject);
  });
  send('sync', {});
  const waitFor = async (test, what) => {
    for (let i = 0; i < 600 && !test(); ++i) await new Promise((r) => setTimeout(r, 100));
    if (!test()) throw new Error(`timed out waiting for ${what}`);
  };
  await waitFor(() => session.state === 'active', 'the session to become active');
  await call('PUT', `sessions/${id}`, { full_device: 'requested' });
  await waitFor(() => session.full_device === 'on', 'the whole desktop');
  // Settling: the switch to the display source, the first key frame at the new size, the
  // encoder's first frames.
  phase = 'settling';
  await new Promise((r) => setTimeout(r, settleMs));
  start = sample();
  phase = 'measuring';
  if (args.seconds) setTimeout(finish, Number(args.seconds) * 1000);
  if (frameTarget === 0) finish(); // only what settling brought
  const timer = setTimeout(() => finish(new Error('timed out measuring')), kTimeout);
  const error = await finished;
  clearTimeout(timer);
  if (error) throw error;
  const end = sample();
  phase = 'done';
  const seconds = (end.at - start.at) / 1000;
  const result = {
    mime_type: window.mime,
    frames: window.frames,
    seconds,
    fps: window.frames / seconds,
    bytes_per_frame: window.bytes / Math.max(1, window.frames),
    host_cpu_ms: end.host - start.host,
    host_cpu_ms_ticks: end.hostTicks - start.hostTicks,
    xvfb_cpu_ms: end.xvfb - start.xvfb,
    host_rss_kib: status(hostPid, 'VmRSS'),
    host_hwm_kib: status(hostPid, 'VmHWM'),
    host_threads: status(hostPid, 'Threads'),
  };
  if (args.save) {
    // JPEG: the last picture; H.264: the whole stream, from the key frame that joining asked for.
    fs.writeFileSync(args.save, window.mime === 'image/jpeg' ? saved[saved.length - 1] : Buffer.concat(saved));
  }
  if (args.arrivals) fs.writeFileSync(args.arrivals, window.arrivals.join('\n') + '\n');
  await call('PUT', `sessions/${id}`, { state: 'ended' });
  ws.close();
  console.log(JSON.stringify(result));
}

main().then(
  () => process.exit(0),
  (error) => {
    console.error(`bench agent: ${error.message}`);
    process.exit(1);
  },
);

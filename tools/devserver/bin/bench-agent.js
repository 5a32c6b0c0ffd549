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
// --ages 1: the host shows the wall clock in a strip at the screen's top-left corner (see
// bench/Timecode.h); the measured frames are decoded afterwards (ffmpeg) and each picture's age
// at arrival, its arrival time minus the time it shows, is summarised as ages_ms.
//   --screen-width PX (1920) says how wide the screen is, to find the strip in a scaled picture.
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { Encoder, Decoder } from 'cbor-x';
import { agentLogin } from './agent-kit.js';

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

// Whether an Annex B access unit holds an IDR slice.
function hasIdr(bytes) {
  for (let i = 0; i + 3 < bytes.length; ++i)
    if (bytes[i] === 0 && bytes[i + 1] === 0 && bytes[i + 2] === 1 && (bytes[i + 3] & 0x1f) === 5) return true;
  return false;
}

const kTimecodeBits = 24;
const kTimecodeBlock = 16;

// Decodes the measured pictures and reads the clock each shows; ages in milliseconds.
function pictureAges(frames, mime) {
  if (frames.length === 0) return { ages_ms: null };
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'bench-agent-'));
  try {
    const file = path.join(dir, 'stream');
    fs.writeFileSync(file, Buffer.concat(frames.map((f) => f.bytes)));
    const format = mime === 'video/avc' ? 'h264' : 'mjpeg';
    const [width, height] = execFileSync('ffprobe', ['-v', 'error', '-f', format, '-select_streams', 'v:0', '-show_entries', 'stream=width,height', '-of', 'csv=p=0', file])
      .toString()
      .trim()
      .split(',')
      .map(Number);
    const gray = execFileSync('ffmpeg', ['-v', 'error', '-f', format, '-i', file, '-fps_mode', 'passthrough', '-f', 'rawvideo', '-pix_fmt', 'gray', '-'], {
      maxBuffer: 4 * 1024 * 1024 * 1024,
    });
    const scale = width / Number(args['screen-width'] ?? 1920);
    const at = (frame, x, y) => gray[frame * width * height + Math.floor(y * scale) * width + Math.floor(x * scale)];
    const decoded = Math.min(frames.length, Math.floor(gray.length / (width * height)));
    const ages = [];
    let unreadable = 0;
    const modulus = 2 ** kTimecodeBits;
    for (let i = 0; i < decoded; ++i) {
      let value = 0;
      for (let bit = 0; bit < kTimecodeBits; ++bit) {
        const x = bit * kTimecodeBlock + kTimecodeBlock / 2;
        value = value * 2 + (at(i, x, kTimecodeBlock / 2) > at(i, x, kTimecodeBlock * 1.5) ? 1 : 0);
      }
      const age = (((frames[i].arrived % modulus) - value) % modulus + modulus) % modulus;
      if (age > 60_000) unreadable++;
      else ages.push(age);
    }
    ages.sort((a, b) => a - b);
    const pick = (q) => ages[Math.min(ages.length - 1, Math.floor(q * ages.length))];
    return {
      ages_ms: ages.length ? { median: pick(0.5), p95: pick(0.95), max: ages[ages.length - 1], pictures: ages.length, unreadable } : null,
    };
  } finally {
    fs.rmSync(dir, { recursive: true, force: true });
  }
}

async function main() {
  const hostPid = Number(args['host-pid']);
  const xvfbPid = args['xvfb-pid'] ? Number(args['xvfb-pid']) : 0;
  const login = await agentLogin(base, license, 'Bench Agent');
  const { call } = login;
  const joined = await call('POST', `sessions/${args.code}/join`);
  if (joined.status !== 200) throw new Error(`join answered ${joined.status}`);
  const id = joined.body.id;
  const ws = login.socket(id);
  let session = joined.body;
  let phase = 'joining'; // then 'settling', 'measuring', 'done'
  const saved = [];
  const measured = [];
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
    const arrived = Date.now();
    window.arrivals.push(arrived);
    // A decodable run: H.264 from its first IDR picture on.
    if (measured.length > 0 || data.mime_type !== 'video/avc' || hasIdr(data.data))
      measured.push({ bytes: data.data, arrived });
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
  if (args.ages) send('sync', {}); // a key frame to decode the measured run from
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
    host_anon_kib: status(hostPid, 'RssAnon') + status(hostPid, 'RssShmem'),
    host_threads: status(hostPid, 'Threads'),
  };
  if (args.save) {
    // JPEG: the last picture; H.264: the whole stream, from the key frame that joining asked for.
    fs.writeFileSync(args.save, window.mime === 'image/jpeg' ? saved[saved.length - 1] : Buffer.concat(saved));
  }
  if (args.ages) Object.assign(result, pictureAges(measured, window.mime));
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

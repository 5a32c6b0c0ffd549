// Test harness: the service as a child process on a port of its own choosing, a scripted
// device that speaks the library's side of the wire, and an agent client.
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import WebSocket from 'ws';
import { Encoder, Decoder } from 'cbor-x';

const kBin = path.join(path.dirname(fileURLToPath(import.meta.url)), '..', '..', 'bin', 'devserver.js');
export const kLicense = 'test-license-0001';
export const kWait = 10_000;

const encoder = new Encoder({ useRecords: false, tagUint8Array: false, variableMapSize: true, useTag259ForMaps: false });
const decoder = new Decoder({ useRecords: false, int64AsNumber: true });
export const encode = (v) => encoder.encode(v);
export const decode = (b) => decoder.decode(b);

export function withTimeout(promise, what, ms = kWait) {
  let timer;
  return Promise.race([
    promise,
    new Promise((_, reject) => {
      timer = setTimeout(() => reject(new Error(`timed out waiting for ${what}`)), ms);
    }),
  ]).finally(() => clearTimeout(timer));
}

export function tempDir() {
  return fs.mkdtempSync(path.join(os.tmpdir(), 'qrv-devserver-test-'));
}

// Starts the service and resolves with its base address, read from the first line it prints.
export async function startService({ state, port = 0, args = [] } = {}) {
  const child = spawn(
    process.execPath,
    [kBin, '--port', String(port), '--state', state, '--license', kLicense, '--log-level', 'warn', ...args],
    { stdio: ['ignore', 'pipe', 'pipe'] },
  );
  let stderr = '';
  child.stderr.on('data', (d) => {
    stderr += d;
  });
  const base = await withTimeout(
    new Promise((resolve, reject) => {
      let out = '';
      child.stdout.on('data', (d) => {
        out += d;
        const match = /^devserver listening on (\S+)\n/.exec(out);
        if (match) resolve(match[1]);
      });
      child.once('exit', (code) => reject(new Error(`service exited (${code}): ${stderr}`)));
    }),
    'the service to start',
  );
  const exited = new Promise((resolve) => child.once('exit', resolve));
  return {
    base,
    port: Number(new URL(base).port),
    stderr: () => stderr,
    async stop() {
      if (child.exitCode === null) child.kill('SIGTERM');
      await withTimeout(exited, 'the service to stop');
    },
  };
}

export const kHeaders = {
  'X-QuorviAPIVersion': '1.21.0',
  'X-QuorviLicense': kLicense,
  'X-QuorviPlatform': 'linux',
  'Content-Type': 'application/json; charset=utf-8',
};

export async function rest(base, method, route, { body, headers = kHeaders, raw } = {}) {
  const res = await fetch(new URL(route, base), {
    method,
    headers,
    body: raw ?? (body === undefined ? undefined : JSON.stringify(body)),
  });
  const text = await res.text();
  return { status: res.status, body: text ? JSON.parse(text) : undefined };
}

// One WebSocket that queues decoded messages so a test can wait for the one it expects.
export class Peer {
  constructor(url, options) {
    this.ws = new WebSocket(url, options);
    this.messages = [];
    this.waiters_ = [];
    this.closed = new Promise((resolve) => this.ws.once('close', (code, reason) => resolve({ code, reason: `${reason}` })));
    this.opened = new Promise((resolve, reject) => {
      this.ws.once('open', resolve);
      this.ws.once('unexpected-response', (req, res) => reject(Object.assign(new Error(`HTTP ${res.statusCode}`), { status: res.statusCode })));
      this.ws.once('error', reject);
    });
    this.ws.on('message', (data) => {
      this.messages.push(decode(data));
      this.check_();
    });
  }

  check_() {
    for (const waiter of [...this.waiters_]) {
      const index = this.messages.findIndex(waiter.match);
      if (index >= 0) {
        this.waiters_.splice(this.waiters_.indexOf(waiter), 1);
        waiter.resolve(this.messages.splice(index, 1)[0]);
      }
    }
  }

  // Resolves with (and consumes) the first message, received or still to come, that matches.
  next(match, what) {
    return withTimeout(
      new Promise((resolve) => {
        this.waiters_.push({ match, resolve });
        this.check_();
      }),
      what,
    );
  }

  // Resolves with the data of the first matching event.
  async event(name, test = () => true) {
    return (await this.next((m) => m.event === name && test(m.data), `"${name}"`)).data;
  }

  sendRaw(bytes, options) {
    this.ws.send(bytes, options);
  }

  close() {
    this.ws.close();
    return withTimeout(this.closed, 'the socket to close');
  }
}

// The library's side: numbered envelopes, a filter on connect.
export class DeviceSocket extends Peer {
  constructor(url, token, filter) {
    super(new URL('sockets/1/ws', url).href.replace(/^http/, 'ws'), {
      headers: { Authorization: `Bearer ${token}`, ...kHeaders },
    });
    this.nextId = 1;
    if (filter) this.opened.then(() => this.send('filter', { events: filter }));
  }

  send(event, data) {
    const id = this.nextId++;
    this.ws.send(encode({ id, data, event }));
    return id;
  }

  ack(id) {
    return this.next((m) => m.ack === id, `ack ${id}`);
  }
}

export const kStreamFilter = ['drawing', 'laser', 'url', 'touch', 'keypress', 'sync', 'probe', 'mouse'];

// A device with one session: registered, session created, control and stream sockets open.
export async function scriptedSession(base, deviceId = 'device-1') {
  const device = await rest(base, 'PUT', `api/1/devices/${deviceId}`, {
    body: { push_token: '', push_provider: 'APNS', device: { platform: 'linux' }, custom_data: {} },
  });
  const created = await rest(base, 'POST', 'api/1/sessions', { body: { custom_data: { plan: 'gold' } } });
  const session = created.body;
  const control = new DeviceSocket(session.control_url, session.control_token, ['session']);
  const stream = new DeviceSocket(session.stream_url, session.stream_token, kStreamFilter);
  await Promise.all([control.opened, stream.opened]);
  // The filter is the first message of each; its ack says the service has it.
  await Promise.all([control.ack(1), stream.ack(1)]);
  return { device: device.body, session, control, stream };
}

export async function agentLogin(base, name = 'Ada Agent') {
  const res = await fetch(new URL('agent/1/login', base), {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify({ license: kLicense, name, email: 'ada@example.invalid' }),
  });
  const body = await res.json();
  return {
    ...body,
    async call(method, route, payload) {
      const r = await fetch(new URL(`agent/1/${route}`, base), {
        method,
        headers: { Authorization: `Bearer ${body.token}`, 'Content-Type': 'application/json' },
        body: payload === undefined ? undefined : JSON.stringify(payload),
      });
      return { status: r.status, body: await r.json() };
    },
    socket(sessionId) {
      const url = new URL(`agent/1/sessions/${sessionId}/ws`, base).href.replace(/^http/, 'ws');
      const peer = new Peer(url, ['quorvix-agent.1', `token.${body.token}`]);
      peer.send = (event, data) => peer.ws.send(encode({ event, data }));
      return peer;
    },
  };
}

#!/usr/bin/env node
// A TCP byte proxy on loopback that breaks the connections through it on command: cut them
// (FIN or RST), cut them after some more bytes, stall them, throttle them, delay them. It knows
// nothing of HTTP or WebSocket, so upgrades pass through as they are.
//
//   faultproxy.js [--target HOST:PORT] [--listen-port N] [--control-port N]
//
// First line on standard output: "faultproxy listening on 127.0.0.1:PORT"; second line:
// "faultproxy control on http://127.0.0.1:PORT/". See README.md for the control requests.
import net from 'node:net';
import http from 'node:http';
import { pathToFileURL } from 'node:url';

// Reading pauses while this much waits to go out in one direction, so a stalled or throttled
// peer pushes back on its sender instead of growing the queue.
const kHighWater = 1 << 20;
// A peer that was sent FIN and keeps its side open is dropped after this long.
const kFinGraceMs = 2000;

// One direction of one connection: bytes from `from`, queued, written to `to` when every fault
// allows.
class Pipe {
  constructor(proxy, conn, from, to, name) {
    Object.assign(this, { proxy, conn, from, to, name });
    this.queue = []; // { due, bytes }
    this.queued = 0;
    this.ended = false; // `from` sent FIN
    this.tokens = 0;
    this.refilled = Date.now();
    this.timer = null;
    from.on('data', (bytes) => {
      this.queue.push({ due: Date.now() + proxy.latencyMs, bytes });
      this.queued += bytes.length;
      if (this.queued >= kHighWater) from.pause();
      this.pump();
    });
    from.on('end', () => {
      this.ended = true;
      this.pump();
    });
  }

  wake(at) {
    if (this.timer) return;
    this.timer = setTimeout(() => {
      this.timer = null;
      this.pump();
    }, Math.max(1, at - Date.now()));
  }

  pump() {
    const { proxy, conn } = this;
    while (!conn.closed && this.queue.length) {
      const now = Date.now();
      if (now < proxy.stalledUntil) return this.wake(proxy.stalledUntil);
      const head = this.queue[0];
      if (head.due > now) return this.wake(head.due);
      let length = head.bytes.length;
      const rate = proxy.rate[this.name];
      if (rate > 0) {
        this.tokens = Math.min(rate, this.tokens + ((now - this.refilled) * rate) / 1000);
        this.refilled = now;
        if (this.tokens < 1) {
          proxy.counters.throttled++;
          return this.wake(now + Math.ceil(((1 - this.tokens) * 1000) / rate));
        }
        length = Math.min(length, Math.floor(this.tokens));
        this.tokens -= length;
      }
      if (conn.budget !== null) length = Math.min(length, conn.budget);
      const chunk = head.bytes.subarray(0, length);
      if (length === head.bytes.length) this.queue.shift();
      else head.bytes = head.bytes.subarray(length);
      this.queued -= length;
      proxy.counters[`bytes_${this.name}`] += length;
      const writable = length && !this.to.destroyed && !this.to.writableEnded;
      if (conn.budget !== null) conn.budget -= length;
      if (conn.budget === 0) {
        // The last bytes reach the kernel before the cut, so the peer sees a message broken off.
        // The reset waits a timer turn: issued from this read's own turn, Node closed with FIN.
        proxy.counters.cut_mid++;
        conn.finish();
        if (writable) this.to.write(chunk, () => setTimeout(() => conn.cut(conn.budgetMode), 1));
        else conn.cut(conn.budgetMode);
        return;
      }
      if (writable) this.to.write(chunk);
    }
    if (this.queued < kHighWater && this.from.isPaused()) this.from.resume();
    if (this.ended && !this.queue.length && !conn.closed && !this.to.writableEnded) this.to.end();
  }
}

class Connection {
  constructor(proxy, client, upstream) {
    Object.assign(this, { proxy, client, upstream });
    this.closed = false;
    this.budget = null; // bytes left before a mid-message cut
    this.budgetMode = 'rst';
    this.up = new Pipe(proxy, this, client, upstream, 'up');
    this.down = new Pipe(proxy, this, upstream, client, 'down');
    for (const [socket, other] of [
      [client, upstream],
      [upstream, client],
    ]) {
      // A reset (or a close without FIN) on one side is a reset on the other; FIN travels
      // through the pipes in order.
      socket.on('error', () => other.destroyed || other.resetAndDestroy());
      socket.on('close', () => {
        if (!socket.readableEnded && !other.destroyed) other.resetAndDestroy();
        if (client.destroyed && upstream.destroyed) this.finish();
      });
    }
  }

  finish() {
    this.closed = true;
    this.proxy.connections.delete(this);
  }

  cut(mode) {
    this.finish();
    for (const pipe of [this.up, this.down]) {
      pipe.queue = [];
      pipe.queued = 0;
      clearTimeout(pipe.timer);
    }
    for (const socket of [this.client, this.upstream]) {
      if (mode === 'fin') {
        socket.end();
        // A reset is no longer possible once our side is shut down: close the descriptor.
        setTimeout(() => socket.destroy(), kFinGraceMs).unref();
      } else {
        socket.resetAndDestroy();
      }
    }
  }
}

export class FaultProxy {
  constructor({ target } = {}) {
    this.target = target ?? null; // { host, port }
    this.connections = new Set();
    this.stalledUntil = 0;
    this.latencyMs = 0;
    this.rate = { up: 0, down: 0 };
    this.counters = {
      accepted: 0,
      refused: 0,
      cut_fin: 0,
      cut_rst: 0,
      cut_mid: 0,
      stalls: 0,
      throttled: 0,
      bytes_up: 0,
      bytes_down: 0,
    };
    this.server = net.createServer({ allowHalfOpen: true }, (client) => this.accept(client));
  }

  listen(port = 0) {
    return new Promise((resolve) => this.server.listen(port, '127.0.0.1', () => resolve(this.server.address())));
  }

  accept(client) {
    client.setNoDelay(true);
    if (!this.target) {
      this.counters.refused++;
      client.resetAndDestroy();
      return;
    }
    // Counted as open at once, so that a cut right after a client connected reaches it too;
    // what the client sends first waits in the upstream socket until it connects.
    const upstream = net.connect({ port: this.target.port, host: this.target.host, allowHalfOpen: true });
    upstream.setNoDelay(true);
    upstream.once('connect', () => this.counters.accepted++);
    upstream.once('error', () => upstream.connecting && this.counters.refused++);
    this.connections.add(new Connection(this, client, upstream));
  }

  // Every open connection, now: "fin" ends both sides cleanly, "rst" resets them.
  cutAll(mode) {
    const all = [...this.connections];
    for (const conn of all) conn.cut(mode);
    this.counters[mode === 'fin' ? 'cut_fin' : 'cut_rst'] += all.length;
    return all.length;
  }

  // Every open connection, once `bytes` more bytes (either way) have gone through it.
  cutAfter(bytes, mode = 'rst') {
    for (const conn of this.connections) {
      conn.budget = bytes;
      conn.budgetMode = mode;
      if (bytes === 0) {
        this.counters.cut_mid++;
        conn.cut(mode);
      }
    }
    return this.connections.size;
  }

  stall(ms) {
    this.counters.stalls++;
    this.stalledUntil = Math.max(this.stalledUntil, Date.now() + ms);
    setTimeout(() => this.pumpAll(), ms + 1).unref();
  }

  throttle(up, down) {
    this.rate = { up: Math.max(0, up), down: Math.max(0, down) };
    this.pumpAll();
  }

  setLatency(ms) {
    this.latencyMs = Math.max(0, ms);
  }

  pumpAll() {
    for (const conn of this.connections) {
      conn.up.pump();
      conn.down.pump();
    }
  }

  stats() {
    let queued = 0;
    for (const conn of this.connections) queued += conn.up.queued + conn.down.queued;
    return {
      ...this.counters,
      open: this.connections.size,
      queued,
      stalled: Date.now() < this.stalledUntil,
      latency_ms: this.latencyMs,
      rate_up: this.rate.up,
      rate_down: this.rate.down,
      target: this.target ? `${this.target.host}:${this.target.port}` : null,
    };
  }

  close() {
    this.cutAll('rst');
    this.server.close();
  }
}

export function parseTarget(text) {
  const m = /^\[?([^\]]*?)\]?:(\d+)$/.exec(text ?? '');
  if (!m || Number(m[2]) < 1 || Number(m[2]) > 65535) return null;
  return { host: m[1] || '127.0.0.1', port: Number(m[2]) };
}

// The control channel: one small HTTP server on loopback. Every request answers JSON.
export function controlServer(proxy) {
  return http.createServer((req, res) => {
    const url = new URL(req.url, 'http://control');
    const q = (name, fallback) => (url.searchParams.has(name) ? Number(url.searchParams.get(name)) : fallback);
    const answer = (status, body) => {
      res.writeHead(status, { 'Content-Type': 'application/json' });
      res.end(JSON.stringify(body));
    };
    const mode = url.searchParams.get('mode') ?? 'rst';
    const bad = (what) => answer(400, { error: what });
    if (req.method === 'GET' && url.pathname === '/stats') return answer(200, proxy.stats());
    if (req.method !== 'POST') return answer(405, { error: 'POST, or GET /stats' });
    switch (url.pathname) {
      case '/cut':
        if (mode !== 'fin' && mode !== 'rst') return bad('mode is fin or rst');
        return answer(200, { cut: proxy.cutAll(mode) });
      case '/cut-after': {
        const bytes = q('bytes', NaN);
        if (!Number.isInteger(bytes) || bytes < 0) return bad('bytes is a non-negative integer');
        if (mode !== 'fin' && mode !== 'rst') return bad('mode is fin or rst');
        return answer(200, { armed: proxy.cutAfter(bytes, mode) });
      }
      case '/disarm':
        for (const conn of proxy.connections) conn.budget = null;
        return answer(200, {});
      case '/stall': {
        const ms = q('ms', NaN);
        if (!Number.isFinite(ms) || ms < 0) return bad('ms is a non-negative number');
        proxy.stall(ms);
        return answer(200, { stalled_ms: ms });
      }
      case '/throttle': {
        const up = q('up', 0);
        const down = q('down', 0);
        if (!Number.isFinite(up) || !Number.isFinite(down)) return bad('up and down are bytes per second');
        proxy.throttle(up, down);
        return answer(200, { up, down });
      }
      case '/latency': {
        const ms = q('ms', NaN);
        if (!Number.isFinite(ms) || ms < 0) return bad('ms is a non-negative number');
        proxy.setLatency(ms);
        return answer(200, { latency_ms: ms });
      }
      case '/target': {
        const target = parseTarget(url.searchParams.get('to'));
        if (!target) return bad('to is HOST:PORT');
        proxy.target = target;
        return answer(200, { target: `${target.host}:${target.port}` });
      }
      case '/reset':
        proxy.stalledUntil = 0;
        proxy.setLatency(0);
        proxy.throttle(0, 0);
        return answer(200, {});
      default:
        return answer(404, { error: 'unknown request' });
    }
  });
}

async function main() {
  const args = process.argv.slice(2);
  const option = (name) => {
    const i = args.indexOf(name);
    return i >= 0 ? args[i + 1] : undefined;
  };
  let target = null;
  if (option('--target') !== undefined) {
    target = parseTarget(option('--target'));
    if (!target) {
      console.error('faultproxy: --target is HOST:PORT');
      process.exit(2);
    }
  }
  const proxy = new FaultProxy({ target });
  const address = await proxy.listen(Number(option('--listen-port') ?? 0));
  const control = controlServer(proxy);
  await new Promise((resolve) => control.listen(Number(option('--control-port') ?? 0), '127.0.0.1', resolve));
  console.log(`faultproxy listening on 127.0.0.1:${address.port}`);
  console.log(`faultproxy control on http://127.0.0.1:${control.address().port}/`);
  const stop = () => {
    proxy.close();
    control.close();
    process.exit(0);
  };
  process.on('SIGTERM', stop);
  process.on('SIGINT', stop);
}

if (import.meta.url === pathToFileURL(process.argv[1]).href) main();

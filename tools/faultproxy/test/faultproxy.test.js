// The proxy as a child process on loopback, between test clients and small servers of the test.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { createRequire } from 'node:module';
import { once } from 'node:events';
import net from 'node:net';
import path from 'node:path';
import readline from 'node:readline';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
const { WebSocketServer, WebSocket } = createRequire(path.join(here, '../../devserver/package.json'))('ws');

let child, port, control, echo;

before(async () => {
  // Echoes every byte back, and tells the test when a client ended its side.
  echo = net.createServer({ allowHalfOpen: true }, (s) => {
    s.on('data', (b) => s.write(b));
    s.on('end', () => s.end());
    s.on('error', () => {});
  });
  await new Promise((r) => echo.listen(0, '127.0.0.1', r));
  child = spawn(process.execPath, [path.join(here, '../faultproxy.js'), '--target', `127.0.0.1:${echo.address().port}`], {
    stdio: ['ignore', 'pipe', 'inherit'],
  });
  const lines = readline.createInterface({ input: child.stdout })[Symbol.asyncIterator]();
  port = Number(/^faultproxy listening on 127\.0\.0\.1:(\d+)$/.exec((await lines.next()).value)[1]);
  control = /^faultproxy control on (\S+)$/.exec((await lines.next()).value)[1];
});
after(() => {
  child.kill('SIGTERM');
  echo.close();
});

const command = async (route, method = 'POST') => {
  const r = await fetch(new URL(route, control), { method });
  return { status: r.status, body: await r.json() };
};
const stats = async () => (await command('stats', 'GET')).body;
// The proxy lets go of a connection once both its sides have closed.
const settled = async () => {
  for (let i = 0; i < 200 && (await stats()).open > 0; i++) await new Promise((r) => setTimeout(r, 10));
};
// A client's connect completes in the kernel before the proxy's accept callback has run; a cut
// sent in between would find nothing to cut.
const opened = async (n) => {
  for (let i = 0; i < 200 && (await stats()).open < n; i++) await new Promise((r) => setTimeout(r, 10));
};

// A client of the echo server through the proxy, with everything it received.
async function client(allowHalfOpen = true) {
  const socket = net.connect({ port, host: '127.0.0.1', allowHalfOpen });
  await once(socket, 'connect');
  const got = { bytes: Buffer.alloc(0), ended: false, error: null, closed: false };
  socket.on('data', (b) => (got.bytes = Buffer.concat([got.bytes, b])));
  socket.on('end', () => (got.ended = true));
  socket.on('error', (e) => (got.error = e.code));
  const closed = new Promise((resolve) => socket.on('close', resolve)).then(() => (got.closed = true));
  const received = async (n) => {
    for (let i = 0; i < 500 && got.bytes.length < n && !got.closed; i++) await new Promise((r) => setTimeout(r, 10));
    return got.bytes;
  };
  return { socket, got, closed, received };
}

test('bytes pass both ways unchanged, and a FIN travels through', async () => {
  const c = await client();
  const payload = Buffer.from(Array.from({ length: 200_000 }, (_, i) => i % 251));
  c.socket.write(payload);
  assert.deepEqual(await c.received(payload.length), payload);
  c.socket.end();
  await c.closed;
  assert.equal(c.got.ended, true);
  assert.equal(c.got.error, null);
  const s = await stats();
  assert.ok(s.bytes_up >= payload.length && s.bytes_down >= payload.length);
});

test('cuts: every connection now, by FIN or by RST, and mid-message after N bytes', async () => {
  await settled();
  const fin = await client(false);
  await opened(1);
  assert.deepEqual((await command('cut?mode=fin')).body, { cut: 1 });
  await fin.closed;
  assert.equal(fin.got.ended, true);
  assert.equal(fin.got.error, null);

  const rst = await client();
  await opened(1);
  assert.deepEqual((await command('cut?mode=rst')).body, { cut: 1 });
  await rst.closed;
  assert.equal(rst.got.error, 'ECONNRESET');

  const mid = await client();
  mid.socket.write('abcd');
  assert.equal((await mid.received(4)).toString(), 'abcd');
  assert.deepEqual((await command('cut-after?bytes=5')).body, { armed: 1 });
  // 5 bytes more in either direction: "hel" up, "hel" back down cuts after "he".
  mid.socket.write('hel');
  // The reset is on the wire, but when it lands in the same wake-up as the last bytes, libuv reads
  // those and reports the hang-up as an end without reading the error; the half-open client then
  // stays open until it lets go itself.
  await Promise.race([mid.closed, new Promise((r) => mid.socket.once('end', r))]);
  assert.equal(mid.got.bytes.toString(), 'abcdhe');
  assert.ok(mid.got.error === 'ECONNRESET' || (mid.got.ended && mid.got.error === null), String(mid.got.error));
  mid.socket.destroy();
  await settled();
  const s = await stats();
  assert.equal(s.cut_fin, 1);
  assert.equal(s.cut_rst, 1);
  assert.equal(s.cut_mid, 1);
  assert.equal(s.open, 0);
  assert.equal((await command('cut-after?bytes=-1')).status, 400);
});

test('a stall holds the bytes back, then delivers them in order', async () => {
  const c = await client();
  await command('stall?ms=400');
  c.socket.write('during the stall');
  // The proxy reports them waiting while it stalls: that is what the test waits on.
  for (let i = 0; i < 100 && (await stats()).queued === 0; i++) await new Promise((r) => setTimeout(r, 5));
  const during = await stats();
  assert.equal(during.stalled, true);
  assert.ok(during.queued > 0);
  assert.equal(c.got.bytes.length, 0);
  assert.equal((await c.received(16)).toString(), 'during the stall');
  c.socket.destroy();
});

test('throttle and latency keep the stream whole and in order', async () => {
  await command('throttle?up=4000&down=4000');
  await command('latency?ms=20');
  const c = await client();
  const payload = Buffer.from(Array.from({ length: 6000 }, (_, i) => (i * 7) % 256));
  c.socket.write(payload);
  assert.deepEqual(await c.received(payload.length), payload);
  const s = await stats();
  assert.ok(s.throttled > 0, 'the bucket ran dry at least once');
  assert.equal(s.latency_ms, 20);
  await command('reset');
  c.socket.destroy();
});

test('a WebSocket upgrade passes through, and a cut closes it abnormally', async () => {
  const wss = new WebSocketServer({ port: 0, host: '127.0.0.1' });
  await once(wss, 'listening');
  wss.on('connection', (ws) => ws.on('message', (m, binary) => ws.send(m, { binary })));
  assert.equal((await command(`target?to=127.0.0.1:${wss.address().port}`)).status, 200);
  const ws = new WebSocket(`ws://127.0.0.1:${port}/path`);
  await once(ws, 'open');
  ws.send(Buffer.from([1, 2, 3]));
  const [message] = await once(ws, 'message');
  assert.deepEqual([...message], [1, 2, 3]);
  const closed = once(ws, 'close');
  await command('cut?mode=rst');
  const [code] = await closed;
  assert.equal(code, 1006);
  wss.close();
  await command(`target?to=127.0.0.1:${echo.address().port}`);
});

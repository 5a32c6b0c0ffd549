// The agent console in headless Chromium against the service and a scripted device.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import { startService, tempDir, rest, scriptedSession, DeviceSocket, kStreamFilter, kLicense, kWait } from './support/harness.js';

const here = path.dirname(fileURLToPath(import.meta.url));
const artefacts = path.join(here, '..', 'test-artifacts', 'console');

function findChromium() {
  try {
    return execFileSync('sh', ['-c', 'command -v chromium'], { encoding: 'utf8' }).trim() || null;
  } catch {
    return null;
  }
}

// Access units of an Annex B stream written with an access unit delimiter before each.
function accessUnits(bytes) {
  const starts = [];
  for (let i = 0; i + 4 < bytes.length; ++i)
    if (bytes[i] === 0 && bytes[i + 1] === 0 && bytes[i + 2] === 0 && bytes[i + 3] === 1 && (bytes[i + 4] & 0x1f) === 9)
      starts.push(i);
  return starts.map((start, n) => bytes.subarray(start, starts[n + 1] ?? bytes.length));
}

const chromium = findChromium();

test('agent console', { skip: chromium ? false : 'chromium is not installed (apt-get install chromium)' }, async (t) => {
  const { default: puppeteer } = await import('puppeteer-core');
  fs.mkdirSync(artefacts, { recursive: true });
  const state = path.join(tempDir(), 'state.json');
  let service = await startService({ state });
  const browser = await puppeteer.launch({
    executablePath: chromium,
    headless: true,
    userDataDir: tempDir(),
    args: [
      '--no-sandbox',
      '--disable-gpu',
      '--disable-background-networking',
      '--disable-component-update',
      '--disable-sync',
      '--no-first-run',
    ],
  });
  t.after(async () => {
    await browser.close();
    await service.stop();
  });
  const page = await browser.newPage();
  page.setDefaultTimeout(kWait);
  await page.setViewport({ width: 1100, height: 900 });
  const problems = [];
  page.on('pageerror', (error) => problems.push(error.message));
  let shot = 0;
  const screenshot = (name) => page.screenshot({ path: path.join(artefacts, `${String(++shot).padStart(2, '0')}-${name}.png`) });
  const text = (selector) => page.$eval(selector, (e) => e.textContent);
  const waitText = (selector, value) =>
    page.waitForFunction((s, v) => document.querySelector(s)?.textContent === v, {}, selector, value);
  const pixel = (x, y) =>
    page.evaluate((px, py) => [...document.getElementById('screen').getContext('2d').getImageData(px, py, 1, 1).data], x, y);
  const near = (actual, expected, what) =>
    assert.ok(expected.every((v, i) => Math.abs(actual[i] - v) <= 40), `${what}: ${actual} is not near ${expected}`);
  // A point of the picture in page coordinates, from fractions of it.
  const at = async (fx, fy) => {
    const box = await (await page.$('#screen')).boundingBox();
    return [box.x + fx * box.width, box.y + fy * box.height];
  };

  const scripted = await scriptedSession(service.base);
  const { session } = scripted;
  let { control, stream } = scripted;
  const putSession = (body) => rest(service.base, 'PUT', `api/1/sessions/${session.id}`, { body });

  await t.test('logs in and joins by code; the device admits the agent', async () => {
    await page.goto(`${service.base}console/`);
    await page.type('#license', kLicense);
    await page.$eval('#agent-name', (e) => {
      e.value = '';
    });
    await page.type('#agent-name', 'Ada Agent');
    await page.click('#login-form button[type=submit]');
    await page.waitForSelector('#lobby-view:not([hidden])');
    await page.waitForFunction((code) => document.getElementById('session-list').textContent.includes(code), {}, session.code);
    await screenshot('lobby');
    await page.type('#join-code', session.code);
    await page.keyboard.press('Enter');
    await page.waitForSelector('#session-view:not([hidden])');
    const joined = await control.event('session', (d) => d.agent?.name === 'Ada Agent');
    assert.equal(joined.state, 'pending');
    // The console asks for a complete picture as soon as it is connected.
    await stream.event('sync');
    await putSession({ state: 'active' });
    await waitText('#s-state', 'active');
    await screenshot('joined');
  });

  await t.test('shows a JPEG frame', async () => {
    const jpeg = fs.readFileSync(path.join(here, 'fixtures', 'red-blue.jpg'));
    // As the device writes it: to the second.
    const sent = new Date().toISOString().replace(/\.\d+Z$/, 'Z');
    const id = stream.send('frame', { type: 'Frame', id: 0, data: jpeg, timestamp: sent, mime_type: 'image/jpeg' });
    await stream.ack(id);
    await waitText('#stat-frames', '1');
    near(await pixel(8, 24), [255, 0, 0], 'left half');
    near(await pixel(56, 24), [0, 0, 255], 'right half');
    assert.equal(await text('#stat-codec'), 'image/jpeg');
    // Each painted frame is kept with the device's timestamp, for measuring the picture's age.
    const [record] = await page.evaluate(() => window.quorvixConsole.screen.recentFrames);
    assert.equal(record.id, 0);
    assert.equal(record.bytes, jpeg.length);
    assert.equal(record.sent, Math.floor(Date.parse(sent) / 1000) * 1000);
    assert.ok(record.received >= record.sent && record.painted >= record.received, JSON.stringify(record));
    await screenshot('jpeg');
  });

  await t.test('shows an H.264 stream', async () => {
    const units = accessUnits(fs.readFileSync(path.join(here, 'fixtures', 'green-blue.h264')));
    assert.equal(units.length, 6);
    stream.send('frame', { type: 'Frame', id: 1, data: units[0], timestamp: new Date().toISOString(), mime_type: 'video/avc' });
    await waitText('#stat-frames', '2');
    near(await pixel(32, 24), [0, 192, 0], 'first picture');
    units.slice(1).forEach((unit, n) =>
      stream.send('frame', { type: 'Frame', id: n + 2, data: unit, timestamp: new Date().toISOString(), mime_type: 'video/avc' }),
    );
    await waitText('#stat-frames', '7');
    near(await pixel(32, 24), [0, 0, 192], 'last picture');
    assert.equal(await text('#stat-codec'), 'video/avc');
    assert.notEqual(await text('#stat-age'), '–');
    const records = await page.evaluate(() => window.quorvixConsole.screen.recentFrames.slice(1));
    assert.deepEqual(records.map((r) => [r.id, r.key]), [[1, true], [2, false], [3, false], [4, false], [5, false], [6, false]]);
    await screenshot('h264');
  });

  await t.test('remote control: requested, granted, then pointer and keys reach the device', async () => {
    await page.click('#remote-control');
    await control.event('session', (d) => d.remote_control === 'requested');
    await putSession({ remote_control: 'on' });
    await page.waitForSelector('input[name=tool][value=control]:not([disabled])');
    await page.click('input[name=tool][value=control]');
    const [x, y] = await at(0.5, 0.25);
    await page.mouse.move(x, y);
    await page.mouse.down();
    await page.mouse.move(...(await at(0.75, 0.5)));
    await page.mouse.up();
    const down = await stream.event('mouse', (d) => d.state === 'mousedown');
    assert.equal(down.type, 'Mouse');
    assert.equal(down.button, 0);
    assert.ok(Math.abs(down.x - 0.5) < 0.02 && Math.abs(down.y - 0.25) < 0.02, `${down.x}, ${down.y}`);
    assert.match(down.timestamp, /^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4}$/);
    await stream.event('mouse', (d) => d.state === 'mousemove' && Math.abs(d.x - 0.75) < 0.02);
    const up = await stream.event('mouse', (d) => d.state === 'mouseup');
    assert.ok(Math.abs(up.x - 0.75) < 0.02 && Math.abs(up.y - 0.5) < 0.02);

    await page.keyboard.press('KeyA');
    assert.deepEqual(await stream.event('keypress', (d) => d.state === 'keydown'), {
      type: 'KeyPress',
      key: 'a',
      code: 'KeyA',
      state: 'keydown',
    });
    assert.equal((await stream.event('keypress', (d) => d.state === 'keyup')).code, 'KeyA');
    await screenshot('remote-control');
  });

  await t.test('drawing: a stroke arrives as a PNG in its rectangle, and clear', async () => {
    await page.click('input[name=tool][value=draw]');
    await page.mouse.move(...(await at(0.25, 0.25)));
    await page.mouse.down();
    await page.mouse.move(...(await at(0.5, 0.5)), { steps: 4 });
    await page.mouse.move(...(await at(0.75, 0.6)), { steps: 4 });
    await screenshot('drawing');
    await page.mouse.up();
    const drawing = await stream.event('drawing');
    assert.equal(drawing.type, 'Drawing');
    assert.equal(drawing.mime_type, 'image/png');
    assert.deepEqual([...drawing.image.subarray(0, 8)], [0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a]);
    assert.ok(drawing.x < 0.25 && drawing.x > 0.15, `x ${drawing.x}`);
    assert.ok(drawing.y < 0.25 && drawing.y > 0.1, `y ${drawing.y}`);
    assert.ok(drawing.x + drawing.width > 0.75 && drawing.width < 0.7, `width ${drawing.width}`);
    assert.ok(drawing.y + drawing.height > 0.6 && drawing.height < 0.6, `height ${drawing.height}`);
    assert.equal(drawing.disappears_in, 3000);
    assert.equal(drawing.fade_duration, 1000);
    assert.match(drawing.agent, /^agent-/);
    assert.equal(typeof drawing.id, 'string');

    await page.click('#clear');
    const clear = await stream.event('drawing');
    assert.equal(clear.image, undefined);
    assert.equal(clear.agent, drawing.agent);
  });

  await t.test('laser: touchstart, touchmove and touchend with the colour', async () => {
    await page.click('input[name=tool][value=laser]');
    await page.mouse.move(...(await at(0.3, 0.3)));
    await page.mouse.down();
    await page.mouse.move(...(await at(0.4, 0.4)));
    await screenshot('laser');
    await page.mouse.up();
    const start = await stream.event('laser', (d) => d.state === 'touchstart');
    assert.equal(start.type, 'Laser');
    assert.equal(start.colour, '#ff3b30');
    assert.ok(Math.abs(start.x - 0.3) < 0.02 && Math.abs(start.y - 0.3) < 0.02);
    await stream.event('laser', (d) => d.state === 'touchmove');
    await stream.event('laser', (d) => d.state === 'touchend');
  });

  await t.test('full device: requested, and the refusal shows', async () => {
    await page.click('#full-device');
    await control.event('session', (d) => d.full_device === 'requested');
    await putSession({ full_device: 'rejected' });
    await waitText('#s-full-device', 'rejected');
  });

  await t.test('a ping reaches the device and its answer shows', async () => {
    await page.click('#probe');
    const probe = await stream.event('probe');
    assert.equal(typeof probe.sent, 'number');
    stream.send('alive', probe);
    await page.waitForFunction(() => document.getElementById('notices').textContent.includes('answered the probe'));
  });

  await t.test('after the service restarts on its port, the console is back in the session', async () => {
    const link = () => page.evaluate(() => ({ open: window.quorvixConsole.link().isOpen, count: window.quorvixConsole.link().openCount }));
    assert.deepEqual(await link(), { open: true, count: 1 });
    await service.stop();
    service = await startService({ state, port: service.port });
    control = new DeviceSocket(session.control_url, session.control_token, ['session']);
    stream = new DeviceSocket(session.stream_url, session.stream_token, kStreamFilter);
    await Promise.all([control.opened, stream.opened]);
    // A new connection asks for a complete picture, as the first did.
    await stream.event('sync');
    assert.deepEqual(await link(), { open: true, count: 2 });
    const frames = Number(await text('#stat-frames'));
    const jpeg = fs.readFileSync(path.join(here, 'fixtures', 'red-blue.jpg'));
    stream.send('frame', { type: 'Frame', id: 10, data: jpeg, timestamp: new Date().toISOString(), mime_type: 'image/jpeg' });
    await waitText('#stat-frames', String(frames + 1));
    assert.equal(await text('#s-code'), session.code);
    await screenshot('reconnected');
  });

  await t.test('ends the session', async () => {
    await page.click('#end');
    const ended = await control.event('session', (d) => d.state === 'ended');
    assert.equal(ended.ended_reason, 'agent_ended');
    await waitText('#s-state', 'ended (agent_ended)');
    await screenshot('ended');
    assert.deepEqual(problems, []);
  });
  await Promise.all([control.close(), stream.close()]);
});

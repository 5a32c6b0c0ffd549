#!/usr/bin/env node
// The agent's side of the demo and the end-to-end tests, played in the real console in headless
// Chromium: logs in, joins the session with the given code, watches the live picture, asks for
// the whole desktop, draws and points with the laser (and checks both show on the X screen),
// takes remote control, clicks the demo window's "Say hello" button in the picture and types
// into it, then ends the session. The user's side answers the consent dialogs on the X display
// by keyboard. Measures, in the console, how old the pictures are when they are painted.
// Prints one line per step and a summary as JSON on the last line; exits non-zero when a step
// does not happen in time.
//
//   console-agent.js --api URL --code CODE --display :N [--license KEY] [--type TEXT]
//                    [--out DIR]                (screenshots of the console and of the X screen)
//                    [--screenshot FILE]        (a PNG of the X screen once the text has landed)
//                    [--restart-command CMD]    (run mid-session: stops and restarts the service)
//                    [--host-output FILE]       (the demo's standard output: the session ends only
//                                                once it reports the click and the text)
//                    [--chromium PATH]
import { execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { parseArgs } from 'node:util';
import { within as withinBound } from './agent-kit.js';

const { values: args } = parseArgs({
  options: {
    api: { type: 'string' },
    code: { type: 'string' },
    display: { type: 'string' },
    license: { type: 'string', default: 'quorvix-dev-license' },
    type: { type: 'string', default: 'hi' },
    out: { type: 'string' },
    screenshot: { type: 'string' },
    'restart-command': { type: 'string' },
    'host-output': { type: 'string' },
    chromium: { type: 'string' },
  },
});
for (const required of ['api', 'code', 'display'])
  if (!args[required]) throw new Error(`console agent: --${required} is required`);

const kStepTimeout = 20_000; // one step on a loaded machine
const kRestartTimeout = 45_000; // the service's restart and everyone's reconnection
const kStoryTimeout = 100_000; // the whole story, should something wait without a bound
const kLatencySamples = 20;
const kInkColour = '#ff3b30';
const kLaserColour = '#ff00ff';
const started = Date.now();
const summary = { frames: 0, frames_received: 0, bytes: 0, mime_types: [], steps: [] };

function step(what) {
  summary.steps.push(what);
  console.log(`[${((Date.now() - started) / 1000).toFixed(1)} s] ${what}`);
}

const within = (promise, what, ms = kStepTimeout) => withinBound(promise, what, ms);

const sleep = (ms) => new Promise((resolve) => setTimeout(resolve, ms));

// Polls `test` (sync or async) every 100 ms until it returns a truthy value.
function until(test, what, ms = kStepTimeout) {
  return within(
    (async () => {
      for (;;) {
        const value = await test();
        if (value) return value;
        await sleep(100);
      }
    })(),
    what,
    ms,
  );
}

const onDisplay = (command, ...rest) =>
  execFileSync(command, rest, {
    env: { ...process.env, DISPLAY: args.display },
    stdio: ['ignore', 'pipe', 'ignore'],
    maxBuffer: 64 << 20,
    timeout: 10_000,
  });
const onDisplayText = (command, ...rest) => onDisplay(command, ...rest).toString();

function percentile(values, p) {
  if (!values.length) return null;
  const sorted = [...values].sort((a, b) => a - b);
  return Math.round(sorted[Math.min(sorted.length - 1, Math.ceil((p / 100) * sorted.length) - 1)]);
}

// Waits for the consent dialog with that title, then answers it: focus starts on Deny, so Tab
// moves to Allow and Return presses it.
async function allow(title) {
  await until(() => {
    try {
      return onDisplayText('xdotool', 'search', '--name', `^${title}$`).trim();
    } catch {
      return null; // not there yet
    }
  }, `the "${title}" dialog`);
  await sleep(300);
  onDisplayText('xdotool', 'key', 'Tab', 'Return');
  step(`the user allowed "${title}"`);
}

function rootSize() {
  return onDisplayText('xdotool', 'getdisplaygeometry').trim().split(' ').map(Number);
}

// The demo window's rectangle on the root, from xwininfo's absolute corner (xdotool's geometry
// counts a window manager's frame twice).
function demoWindow() {
  const id = onDisplayText('xdotool', 'search', '--name', '^Quorvix demo$').trim().split('\n')[0];
  const info = onDisplayText('xwininfo', '-id', id);
  const field = (name) => Number(new RegExp(`${name}:\\s+(-?\\d+)`).exec(info)[1]);
  return { x: field('Absolute upper-left X'), y: field('Absolute upper-left Y'), width: field('Width'), height: field('Height') };
}

// The X screen as RGB bytes.
function grabScreen() {
  const [width, height] = rootSize();
  const pixels = onDisplay('ffmpeg', '-loglevel', 'error', '-f', 'x11grab', '-video_size', `${width}x${height}`, '-i', args.display,
    '-frames:v', '1', '-f', 'rawvideo', '-pix_fmt', 'rgb24', '-');
  return { width, height, pixels };
}

// A PNG of the X screen in the --out folder (or at `file`); its path, or null without either.
function screenshotX(name, file = args.out ? path.join(args.out, name) : null) {
  if (!file) return null;
  onDisplay('ffmpeg', '-loglevel', 'error', '-y', '-f', 'x11grab', '-i', args.display, '-frames:v', '1', file);
  return file;
}

// How many pixels of the X screen within `box` (root pixels) are close to the colour.
function pixelsOfColour(grab, colour, box) {
  const want = [1, 3, 5].map((i) => parseInt(colour.slice(i, i + 2), 16));
  let count = 0;
  for (let y = Math.max(0, box.top); y < Math.min(grab.height, box.bottom); ++y)
    for (let x = Math.max(0, box.left); x < Math.min(grab.width, box.right); ++x) {
      const at = (y * grab.width + x) * 3;
      if (want.every((v, i) => Math.abs(grab.pixels[at + i] - v) <= 48)) ++count;
    }
  return count;
}

// X windows that carry the library's own-window property.
function ownWindows() {
  const ids = onDisplayText('xwininfo', '-root', '-tree').match(/0x[0-9a-f]+/g) ?? [];
  return ids.filter((id) => {
    try {
      return /_QUORVIX_OWN_WINDOW\(CARDINAL\)/.test(onDisplayText('xprop', '-id', id, '_QUORVIX_OWN_WINDOW'));
    } catch {
      return false; // gone meanwhile
    }
  }).length;
}

function findChromium() {
  if (args.chromium) return args.chromium;
  try {
    return execFileSync('sh', ['-c', 'command -v chromium'], { encoding: 'utf8' }).trim() || null;
  } catch {
    return null;
  }
}

async function main() {
  const chromium = findChromium();
  if (!chromium) throw new Error('chromium is not installed (apt-get install chromium), or give --chromium PATH');
  const { default: puppeteer } = await import('puppeteer-core');
  if (args.out) fs.mkdirSync(args.out, { recursive: true });
  const profile = fs.mkdtempSync(path.join(os.tmpdir(), 'qrv-console-agent-'));
  const browser = await puppeteer.launch({
    executablePath: chromium,
    headless: true,
    userDataDir: profile,
    args: ['--no-sandbox', '--disable-gpu', '--disable-background-networking', '--disable-component-update', '--disable-sync',
      '--no-first-run', '--disable-background-timer-throttling', '--disable-renderer-backgrounding'],
  });
  try {
    await story(browser);
  } finally {
    await browser.close().catch(() => {});
    fs.rmSync(profile, { recursive: true, force: true });
  }
}

async function story(browser) {
  const page = await browser.newPage();
  page.setDefaultTimeout(kStepTimeout);
  await page.setViewport({ width: 1280, height: 1000 });
  const problems = [];
  page.on('pageerror', (error) => problems.push(error.message));
  let shots = 0;
  const screenshot = async (name) => {
    if (!args.out) return;
    await page.screenshot({ path: path.join(args.out, `console-${String(++shots).padStart(2, '0')}-${name}.png`) });
  };
  const counts = () =>
    page.evaluate(() => {
      const { screen } = window.quorvixConsole;
      const { width, height } = screen.stats();
      return { painted: screen.paintedCount, received: screen.receivedCount, bytes: screen.receivedBytes, width, height };
    });
  const waitText = (selector, value, what) =>
    within(page.waitForFunction((s, v) => document.querySelector(s)?.textContent === v, { timeout: 0 }, selector, value), what);
  // A point of the picture, in page coordinates, from fractions of it.
  const at = async (fx, fy) => {
    const box = await (await page.$('#screen')).boundingBox();
    return [box.x + fx * box.width, box.y + fy * box.height];
  };
  const [rootWidth, rootHeight] = rootSize();
  // Fractions of the picture (the whole desktop) for a point of the root.
  const fractionOf = (x, y) => [x / rootWidth, y / rootHeight];

  await page.goto(new URL('console/', args.api).href);
  await page.type('#license', args.license);
  await page.$eval('#agent-name', (e) => {
    e.value = '';
  });
  await page.type('#agent-name', 'Ada Agent');
  await page.click('#login-form button[type=submit]');
  await page.waitForSelector('#lobby-view:not([hidden])');
  step('logged in to the console');
  await page.type('#join-code', args.code);
  await page.keyboard.press('Enter');
  await page.waitForSelector('#session-view:not([hidden])');
  await screenshot('joined');
  step(`joined session ${args.code} in the console`);

  await allow('Support Request');
  await waitText('#s-state', 'active', 'the session to become active');
  step('session active');
  await until(async () => (await counts()).painted > 0, 'the first picture in the console');
  summary.mime_types.push(await page.evaluate(() => window.quorvixConsole.screen.codec));
  await screenshot('first-picture');
  step(`first picture painted: ${summary.mime_types[0]}`);
  const avc = summary.mime_types[0] === 'video/avc';

  await page.click('#full-device');
  await allow('Full device screenshare');
  await waitText('#s-full-device', 'on', 'full-device sharing');
  // The picture takes the desktop's proportions once the first frame of it arrives.
  await until(async () => {
    const { width, height } = await counts();
    return Math.abs(width / height - rootWidth / rootHeight) < 0.01;
  }, 'a picture of the whole desktop');
  await screenshot('whole-desktop');
  step('whole desktop shared and shown');

  // Spots of the desktop away from the demo window, for the pointer, the ink and the laser.
  const demo = demoWindow();
  const clear = (x, y) => x < demo.x - 40 || x > demo.x + demo.width + 40 || y < demo.y - 40 || y > demo.y + demo.height + 40;
  const spots = [[0.6, 0.3], [0.8, 0.3], [0.6, 0.7], [0.8, 0.7], [0.3, 0.8], [0.3, 0.3]]
    .map(([fx, fy]) => [Math.round(fx * rootWidth), Math.round(fy * rootHeight)])
    .filter(([x, y]) => clear(x, y) && clear(x + 120, y + 60));
  if (spots.length < 2) throw new Error('no free part of the desktop for the pointer and the ink');

  // Moves the X pointer to and fro on a free spot: the picture changes only where the cursor was
  // and is, which keeps frames coming while the story waits for something in them.
  let nudge = 0;
  const wiggle = async () => {
    const [x, y] = spots[0];
    nudge = (nudge + 1) % 2;
    onDisplayText('xdotool', 'mousemove', String(x + 30 * nudge), String(y));
  };

  if (args['restart-command']) await restartService(page, counts, wiggle, screenshot);
  if (avc) await resync(page, counts, wiggle);
  await measureLatency(page, spots, fractionOf);

  // Ink: a stroke with the Draw tool, kept (not disappearing) until Clear, seen on the X screen.
  await page.click('input[name=tool][value=draw]');
  await page.$eval('#disappearing', (e) => {
    e.checked = false;
  });
  await page.$eval('#colour', (e, colour) => {
    e.value = colour;
  }, kInkColour);
  const [inkX, inkY] = spots[1];
  await page.mouse.move(...(await at(...fractionOf(inkX, inkY))));
  await page.mouse.down();
  await page.mouse.move(...(await at(...fractionOf(inkX + 60, inkY + 40))), { steps: 5 });
  await page.mouse.move(...(await at(...fractionOf(inkX + 120, inkY + 10))), { steps: 5 });
  await page.mouse.up();
  const inkBox = { left: inkX - 20, top: inkY - 20, right: inkX + 140, bottom: inkY + 60 };
  summary.ink_pixels = await until(() => pixelsOfColour(grabScreen(), kInkColour, inkBox), 'the ink on the X screen');
  summary.own_windows = ownWindows();
  await screenshot('drawing');
  screenshotX('x-screen-ink.png');
  step(`drew a stroke; ${summary.ink_pixels} pixels of ink on the X screen`);
  await page.click('#clear');
  await until(() => pixelsOfColour(grabScreen(), kInkColour, inkBox) === 0, 'the ink to leave the X screen');
  step('cleared the drawing');

  // The laser shows while the button is held.
  await page.click('input[name=tool][value=laser]');
  await page.$eval('#colour', (e, colour) => {
    e.value = colour;
  }, kLaserColour);
  const [laserX, laserY] = spots[1];
  await page.mouse.move(...(await at(...fractionOf(laserX, laserY))));
  await page.mouse.down();
  await page.mouse.move(...(await at(...fractionOf(laserX + 10, laserY + 10))), { steps: 2 });
  const laserBox = { left: laserX - 60, top: laserY - 60, right: laserX + 80, bottom: laserY + 80 };
  summary.laser_pixels = await until(() => pixelsOfColour(grabScreen(), kLaserColour, laserBox), 'the laser on the X screen');
  await screenshot('laser');
  await page.mouse.up();
  step(`laser shown (${summary.laser_pixels} pixels on the X screen) and released`);

  await page.click('#remote-control');
  await allow('Remote Control Request');
  await waitText('#s-remote-control', 'on', 'remote control');
  await page.waitForSelector('input[name=tool][value=control]:not([disabled])');
  await page.click('input[name=tool][value=control]');
  step('remote control on');

  // "Say hello" sits at (20..160, 120..160) in the demo window, wherever the window manager put it.
  const [buttonX, buttonY] = fractionOf(demo.x + 90, demo.y + 140);
  // The device learns of the answer from its own request's reply, which may come after the
  // service told the console. Move the pointer over the picture until a frame shows the moved
  // cursor: then the device is taking input.
  await within(
    (async () => {
      for (let n = 0; ; ++n) {
        const before = (await counts()).painted;
        await page.mouse.move(...(await at(buttonX + (n % 2) * 0.005, buttonY)));
        try {
          await until(async () => (await counts()).painted > before, 'a picture', 600);
          return;
        } catch {
          // not yet: move again
        }
      }
    })(),
    'the device to take input',
  );
  step('the device follows the pointer');
  const inputAt = Date.now();
  await page.mouse.move(...(await at(buttonX, buttonY)));
  await page.mouse.down();
  await page.mouse.up();
  await page.focus('#stage');
  await page.keyboard.type(args.type);
  step(`clicked "Say hello" in the picture and typed "${args.type}"`);
  // The click changes the window: a picture of it shows the input reached the device.
  await until(
    () => page.evaluate((since) => window.quorvixConsole.screen.recentFrames.some((f) => f.received > since), inputAt),
    'a picture after the input',
  );
  if (args['host-output']) {
    // Ending the session ends the demo, which might not have read its last key events by then.
    const lines = [`clicked "Say hello"`, ...[...args.type].map((ch) => `typed "${ch}"`)];
    await until(() => {
      const output = fs.readFileSync(args['host-output'], 'utf8').split('\n');
      return lines.every((line) => output.includes(line));
    }, 'the demo to report the click and the text');
    step('the demo reported the click and the text');
  }
  await screenshot('typed');
  const shot = screenshotX('x-screen.png', args.screenshot);
  if (shot) step(`screenshot of the X screen: ${shot}`);

  await page.click('#end');
  await waitText('#s-state', 'ended (agent_ended)', 'the end of the session');
  await screenshot('ended');
  step('session ended from the console');

  const totals = await counts();
  const frames = await page.evaluate(() => window.quorvixConsole.screen.recentFrames);
  summary.frames = totals.painted;
  summary.frames_received = totals.received;
  summary.bytes = totals.bytes;
  const painted = frames.map((f) => f.painted);
  const span = (Math.max(...painted) - Math.min(...painted)) / 1000;
  summary.fps = span > 0 ? Number(((frames.length - 1) / span).toFixed(1)) : null;
  // The wire gives the device's timestamp to the second, so these ages carry up to a second of
  // rounding; the pointer probe above measures with the page's own resolution.
  const ages = frames.filter((f) => f.sent !== null).map((f) => f.painted - f.sent);
  summary.timestamp_age_ms = { median: percentile(ages, 50), p95: percentile(ages, 95), frames: ages.length };
  const decoding = frames.map((f) => f.painted - f.received);
  summary.receive_to_paint_ms = { median: percentile(decoding, 50), p95: percentile(decoding, 95) };
  summary.page_errors = problems;
  if (problems.length) throw new Error(`errors in the console page: ${problems.join('; ')}`);
}

// Stops and restarts the service (the command does both), then waits for the console to come
// back on its own: a new connection, the same session, and pictures painted again.
async function restartService(page, counts, wiggle, screenshot) {
  const before = await page.evaluate(() => {
    const { session, link } = window.quorvixConsole;
    return { id: session().id, code: session().code, opened: link().openCount };
  });
  execFileSync('sh', ['-c', args['restart-command']], { stdio: ['ignore', 'inherit', 'inherit'], timeout: kRestartTimeout });
  step('the service was stopped and started again');
  const restarted = Date.now();
  await until(
    () => page.evaluate((opened) => window.quorvixConsole.link().isOpen && window.quorvixConsole.link().openCount > opened, before.opened),
    'the console to reconnect',
    kRestartTimeout,
  );
  step('the console reconnected');
  await until(
    async () => {
      await wiggle();
      return page.evaluate(
        (since) => window.quorvixConsole.screen.recentFrames.some((f) => f.received > since),
        restarted,
      );
    },
    'pictures after the restart',
    kRestartTimeout,
  );
  const after = await page.evaluate(() => window.quorvixConsole.session());
  if (after.id !== before.id || after.code !== before.code)
    throw new Error(`the session changed across the restart: ${before.id}/${before.code} -> ${after.id}/${after.code}`);
  if (after.state !== 'active') throw new Error(`the session is ${after.state} after the restart`);
  summary.restart = { reconnect_seconds: Number(((Date.now() - restarted) / 1000).toFixed(1)), session_code: after.code };
  await screenshot('after-restart');
  step(`pictures resumed after the restart, same session ${after.code} (${(await counts()).painted} painted)`);
}

// Throws the console's H.264 decoder away, as a decoding error would: the console asks the device
// for a key frame (a "sync"), and decoding goes on from the key frame that answers. The device's
// own key frames are 120 frames or 10 s apart; the answer comes within the frames already in
// flight when the sync arrives.
const kKeyFrameAnswerWithin = 10; // frames

async function resync(page, counts, wiggle) {
  const before = await page.evaluate(() => {
    const { screen } = window.quorvixConsole;
    screen.reset();
    return { asks: screen.keyFrameAsks, painted: screen.paintedCount, received: screen.receivedCount };
  });
  const key = await until(
    async () => {
      await wiggle();
      return page.evaluate(
        (since) => window.quorvixConsole.screen.recentFrames.find((f) => f.key && f.seq > since) ?? null,
        before.received,
      );
    },
    'a key frame after the decoder was reset',
  );
  const asks = await page.evaluate(() => window.quorvixConsole.screen.keyFrameAsks);
  if (asks <= before.asks) throw new Error('the console did not ask for a key frame');
  const waited = key.seq - before.received;
  if (waited > kKeyFrameAnswerWithin)
    throw new Error(`the key frame came ${waited} frames after the console asked: not an answer to its sync`);
  await until(
    async () => {
      await wiggle();
      return page.evaluate((seq) => window.quorvixConsole.screen.recentFrames.filter((f) => f.seq > seq).length >= 3, key.seq);
    },
    'pictures decoded after the key frame',
  );
  summary.resync = { key_frame_id: key.id, frames_until_key: waited, painted_before: before.painted, painted_after: (await counts()).painted };
  step(`the console asked for a key frame; it came ${waited} frame(s) later (frame ${key.id}) and decoding went on`);
}

const kFramePeriodMs = 100; // the device looks for changes ten times a second

// Capture to console: the X pointer moves to a free spot of the desktop, and the page watches
// the picture there until the cursor shows; the sample is the paint time of the picture that
// showed it minus the time the move was made, both on this machine's clock.
async function measureLatency(page, spots, fractionOf) {
  const samples = [];
  for (let n = 0; n < kLatencySamples; ++n) {
    const [x, y] = spots[n % 2 === 0 ? 1 : 0];
    const [fx, fy] = fractionOf(x, y);
    // The picture around the spot before the cursor gets there.
    await page.evaluate((px, py) => {
      const canvas = document.getElementById('screen');
      const left = Math.max(0, Math.round(px * canvas.width) - 2);
      const top = Math.max(0, Math.round(py * canvas.height) - 2);
      window.quorvixProbe_ = { left, top, before: canvas.getContext('2d').getImageData(left, top, 12, 12).data };
    }, fx, fy);
    // The last sample ended just after a paint, in step with the device's frame timer; without
    // a random pause every move would land at the same point of its period.
    await sleep(Math.random() * kFramePeriodMs * 1.5);
    onDisplayText('xdotool', 'mousemove', String(x), String(y));
    const moved = Date.now();
    const shown = await page.evaluate(
      (ms) =>
        new Promise((resolve) => {
          const { left, top, before } = window.quorvixProbe_;
          const deadline = performance.now() + ms;
          const look = () => {
            const now = performance.timeOrigin + performance.now();
            if (performance.now() > deadline) return resolve(null);
            const canvas = document.getElementById('screen');
            const pixels = canvas.getContext('2d').getImageData(left, top, 12, 12).data;
            if (pixels.some((v, i) => Math.abs(v - before[i]) > 80)) {
              const frames = window.quorvixConsole.screen.recentFrames.filter((f) => f.painted <= now);
              resolve(frames.at(-1)?.painted ?? now);
            } else {
              requestAnimationFrame(look);
            }
          };
          look();
        }),
      kStepTimeout,
    );
    if (shown === null) throw new Error('timed out waiting for the cursor in the picture');
    samples.push(shown - moved);
  }
  summary.latency_ms = { median: percentile(samples, 50), p95: percentile(samples, 95), samples: samples.length };
  step(`capture to console: median ${summary.latency_ms.median} ms, 95th percentile ${summary.latency_ms.p95} ms (pointer moves)`);
}

// Puppeteer stops the browser when this process exits.
setTimeout(() => {
  console.error(`console agent: the story did not end within ${kStoryTimeout / 1000} s`);
  process.exit(1);
}, kStoryTimeout).unref();

main().then(
  () => {
    summary.seconds = (Date.now() - started) / 1000;
    console.log(JSON.stringify(summary));
    process.exit(0);
  },
  (error) => {
    console.error(`console agent: ${error.message}`);
    process.exit(1);
  },
);

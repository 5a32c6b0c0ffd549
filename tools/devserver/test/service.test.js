import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import path from 'node:path';
import {
  startService,
  tempDir,
  rest,
  kHeaders,
  kLicense,
  DeviceSocket,
  scriptedSession,
  agentLogin,
  encode,
} from './support/harness.js';

let service;
before(async () => {
  service = await startService({ state: path.join(tempDir(), 'state.json'), args: ['--next-registration', '120'] });
});
after(() => service.stop());

test('REST answers: required headers, license, bodies and routes', async () => {
  const { base } = service;
  const put = (headers, raw) => rest(base, 'PUT', 'api/1/devices/dev-a', { headers, raw: raw ?? '{}' });

  const { 'X-QuorviAPIVersion': _v, ...noVersionHeaders } = kHeaders;
  const noVersion = await put(noVersionHeaders);
  assert.equal(noVersion.status, 400);
  assert.match(noVersion.body.message, /X-QuorviAPIVersion/);
  assert.equal((await put({ ...kHeaders, 'X-QuorviAPIVersion': '2.0.0' })).status, 400);

  const { 'X-QuorviLicense': _, ...noLicense } = kHeaders;
  assert.equal((await put(noLicense)).status, 401);
  const unknown = await put({ ...kHeaders, 'X-QuorviLicense': 'nope' });
  assert.deepEqual(unknown, { status: 401, body: { message: 'Unknown license' } });

  assert.deepEqual(await put(kHeaders, '{"push_token": '), {
    status: 400,
    body: { message: 'Request body is not valid JSON' },
  });
  assert.equal((await put(kHeaders, '[1, 2]')).status, 400);
  assert.equal((await put(kHeaders, '{"custom_data": "x"}')).status, 400);
  assert.equal((await rest(base, 'PUT', 'api/1/devices/bad%20id', { body: {} })).status, 400);
  assert.equal((await rest(base, 'PUT', 'api/1/devices/dev-a', { raw: 'x'.repeat(2 * 1024 * 1024) })).status, 413);

  const missing = await rest(base, 'GET', 'api/1/nothing-here');
  assert.equal(missing.status, 404);
  assert.equal(typeof missing.body.message, 'string');
  assert.equal((await rest(base, 'GET', 'api/1/sessions/000000')).status, 404);
  assert.equal((await rest(base, 'DELETE', 'api/1/sessions')).status, 405);
});

test('device registration gives the notification address, token and interval; DELETE forgets it', async () => {
  const { base } = service;
  const body = { push_token: '0aff', push_provider: 'APNS', device: { platform: 'linux' }, custom_data: { a: 1 } };
  const first = await rest(base, 'PUT', 'api/1/devices/dev-b', { body });
  assert.equal(first.status, 200);
  assert.equal(first.body.id, 'dev-b');
  assert.equal(first.body.next_registration, 120);
  assert.match(first.body.notification_token, /^[0-9a-f]{32}$/);
  assert.ok(first.body.notification_url.startsWith(base));
  const again = await rest(base, 'PUT', 'api/1/devices/dev-b', { body });
  assert.equal(again.body.notification_token, first.body.notification_token);

  assert.equal((await rest(base, 'DELETE', 'api/1/devices/dev-b')).status, 204);
  assert.equal((await rest(base, 'DELETE', 'api/1/devices/dev-b')).status, 404);
  const fresh = await rest(base, 'PUT', 'api/1/devices/dev-b', { body });
  assert.notEqual(fresh.body.notification_token, first.body.notification_token);
});

test('a session is created pending, found by id and by code, and carries its socket addresses', async () => {
  const { base } = service;
  const created = await rest(base, 'POST', 'api/1/sessions', {
    body: { custom_data: { plan: 'gold' }, capabilities: ['pointer', 'laser', 'bogus'] },
  });
  assert.equal(created.status, 201);
  const s = created.body;
  assert.equal(s.type, 'Session');
  assert.equal(s.state, 'pending');
  assert.match(s.code, /^\d{6}$/);
  assert.equal(s.agent, undefined, 'no agent yet, and no "agent" key either');
  assert.equal(s.full_device, 'off');
  assert.equal(s.remote_control, 'off');
  assert.equal(s.require_consent, true);
  assert.deepEqual(s.custom_data, { plan: 'gold' });
  assert.ok(s.capabilities.includes('full_device'));
  assert.deepEqual(s.video_codecs, ['video/avc', 'image/jpeg']);
  for (const date of ['created', 'updated', 'expires']) assert.match(s[date], /^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$/);
  assert.notEqual(s.control_token, s.stream_token);
  assert.ok(s.control_url.endsWith('/') && s.stream_url.endsWith('/'));

  assert.deepEqual((await rest(base, 'GET', `api/1/sessions/${s.id}`)).body.id, s.id);
  assert.deepEqual((await rest(base, 'GET', `api/1/sessions/${s.code}`)).body.id, s.id);
  const otherLicense = await rest(base, 'GET', `api/1/sessions/${s.id}`, {
    headers: { ...kHeaders, 'X-QuorviLicense': 'nope' },
  });
  assert.equal(otherLicense.status, 401);
});

test('session life: agent joins, device consents, agent asks for control, either side ends', async () => {
  const { base } = service;
  const { session, control } = await scriptedSession(base);
  const agent = await agentLogin(base);
  const put = (body) => rest(base, 'PUT', `api/1/sessions/${session.id}`, { body });

  // Nobody to admit yet.
  assert.equal((await put({ state: 'active' })).status, 409);

  const joined = await agent.call('POST', `sessions/${session.code}/join`);
  assert.equal(joined.status, 200);
  const withAgent = await control.event('session', (d) => d.agent?.name === 'Ada Agent');
  assert.equal(withAgent.state, 'pending');
  assert.equal(withAgent.type, 'Session');
  assert.equal((await (await agentLogin(base, 'Bob')).call('POST', `sessions/${session.code}/join`)).status, 409);

  // The agent cannot ask before the device let it in.
  assert.equal((await agent.call('PUT', `sessions/${session.id}`, { remote_control: 'requested' })).status, 409);

  assert.equal((await put({ state: 'authorizing' })).body.state, 'authorizing');
  await control.event('session', (d) => d.state === 'authorizing');
  const active = await put({ state: 'active', device: { platform: 'linux' }, capabilities: ['pointer'] });
  assert.equal(active.body.state, 'active');
  assert.match(active.body.activated, /Z$/);
  assert.equal(active.body.expires, undefined);
  await control.event('session', (d) => d.state === 'active');

  assert.equal((await put({ remote_control: 'on' })).status, 409, 'nobody asked');
  assert.equal((await put({ remote_control: 'requested' })).status, 400, 'only the agent asks');
  assert.equal((await put({ state: 'bogus' })).status, 400);

  await agent.call('PUT', `sessions/${session.id}`, { remote_control: 'requested', full_device: 'requested' });
  await control.event('session', (d) => d.remote_control === 'requested' && d.full_device === 'requested');
  await put({ remote_control: 'on' });
  await put({ full_device: 'rejected' });
  const view = await agent.call('GET', `sessions/${session.id}`);
  assert.equal(view.body.remote_control, 'on');
  assert.equal(view.body.full_device, 'rejected');
  assert.deepEqual(view.body.capabilities, ['pointer'], 'narrowed to what the device offers');
  assert.equal(view.body.control_token, undefined, 'agents never see socket tokens');

  await agent.call('PUT', `sessions/${session.id}`, { state: 'ended' });
  const ended = await control.event('session', (d) => d.state === 'ended');
  assert.equal(ended.ended_reason, 'agent_ended');
  assert.equal((await put({ custom_data: { x: 1 } })).status, 409);
  assert.equal((await put({ state: 'ended' })).status, 200, 'ending twice is harmless');
  assert.equal((await put({ state: 'ended' })).body.ended_reason, 'agent_ended');
  await control.close();
});

test('the device ends a session itself', async () => {
  const { base } = service;
  const { session, control, stream } = await scriptedSession(base);
  const ended = await rest(base, 'PUT', `api/1/sessions/${session.id}`, { body: { state: 'ended' } });
  assert.equal(ended.body.ended_reason, 'device_ended');
  await control.event('session', (d) => d.state === 'ended' && d.ended_reason === 'device_ended');
  await Promise.all([control.close(), stream.close()]);
});

test('socket upgrades need the right bearer token', async () => {
  const { base } = service;
  const { session, control, stream } = await scriptedSession(base);
  for (const [url, token] of [
    [session.control_url, session.stream_token],
    [session.stream_url, 'f'.repeat(32)],
    [session.stream_url, ''],
  ]) {
    const peer = new DeviceSocket(url, token);
    await assert.rejects(peer.opened, (e) => e.status === 401);
  }
  const device = await rest(base, 'PUT', 'api/1/devices/dev-c', { body: {} });
  await assert.rejects(new DeviceSocket(device.body.notification_url, session.control_token).opened, (e) => e.status === 401);
  await Promise.all([control.close(), stream.close()]);
});

test('every numbered message is acknowledged, in order, whatever its number type', async () => {
  const { base } = service;
  const { control, stream } = await scriptedSession(base);
  const ids = [stream.send('screen', { type: 'Screen' }), stream.send('alive', {}), stream.send('unknown', {})];
  for (const id of ids) assert.equal((await stream.ack(id)).ack, id);
  stream.sendRaw(encode({ id: 7.0, data: {}, event: 'screen' }));
  await stream.ack(7);
  await Promise.all([control.close(), stream.close()]);
});

test('frames reach the agent; agent events reach the device only when it filtered for them', async () => {
  const { base } = service;
  const { session, control, stream } = await scriptedSession(base);
  const agent = await agentLogin(base);
  await agent.call('POST', `sessions/${session.code}/join`);
  await rest(base, 'PUT', `api/1/sessions/${session.id}`, { body: { state: 'active' } });
  const console_ = agent.socket(session.id);
  await console_.opened;
  await console_.event('session', (d) => d.state === 'active' && d.device_connected);

  const picture = new Uint8Array([0xff, 0xd8, 0xff, 0xd9]);
  const id = stream.send('frame', { type: 'Frame', id: 0, data: picture, timestamp: 'now', mime_type: 'image/jpeg' });
  const frame = await console_.event('frame');
  assert.deepEqual(new Uint8Array(frame.data), picture);
  assert.equal(frame.mime_type, 'image/jpeg');
  await stream.ack(id);

  console_.send('laser', { type: 'Laser', id: 'l', state: 'touchstart', x: 0.5, y: 0.25, colour: '#00ff00' });
  assert.deepEqual(await stream.event('laser'), { type: 'Laser', id: 'l', state: 'touchstart', x: 0.5, y: 0.25, colour: '#00ff00' });

  // Pointer and keys wait for remote control.
  console_.send('mouse', { type: 'Mouse', id: 'm', state: 'mousedown', button: 0, x: 0.1, y: 0.2 });
  assert.match((await console_.event('notice')).message, /remote control/);
  await agent.call('PUT', `sessions/${session.id}`, { remote_control: 'requested' });
  await rest(base, 'PUT', `api/1/sessions/${session.id}`, { body: { remote_control: 'on' } });
  console_.send('keypress', { type: 'KeyPress', key: 'a', code: 'KeyA', state: 'keydown' });
  assert.equal((await stream.event('keypress')).code, 'KeyA');

  // A probe goes through to the device, and its "alive" comes back to the agent.
  console_.send('probe', { n: 3 });
  assert.deepEqual(await stream.event('probe'), { n: 3 });
  stream.send('alive', { n: 3 });
  assert.deepEqual(await console_.event('alive'), { n: 3 });

  // Without "drawing" in its filter the device does not get drawings.
  stream.send('filter', { events: ['sync'] });
  console_.send('drawing', { type: 'Drawing', id: 'd' });
  assert.match((await console_.event('notice')).message, /not listening/);
  console_.send('sync', {});
  await stream.event('sync');
  await Promise.all([control.close(), stream.close(), console_.close()]);
});

test('the notification socket: probe and alive, and an agent asking for the device', async () => {
  const { base } = service;
  const registered = await rest(base, 'PUT', 'api/1/devices/dev-n', { body: {} });
  const agent = await agentLogin(base);
  assert.deepEqual((await agent.call('POST', 'devices/dev-n/probe')).body, { alive: false });

  const socket = new DeviceSocket(registered.body.notification_url, registered.body.notification_token, [
    'probe',
    'notification',
  ]);
  await socket.ack(1);
  const probed = agent.call('POST', 'devices/dev-n/probe');
  const probe = await socket.event('probe');
  socket.send('alive', probe);
  const answer = await probed;
  assert.equal(answer.body.alive, true);
  assert.equal(typeof answer.body.rtt_ms, 'number');
  assert.ok((await agent.call('GET', 'devices')).body.devices.find((d) => d.id === 'dev-n').online);

  const requested = await agent.call('POST', 'devices/dev-n/sessions');
  assert.equal(requested.status, 201);
  assert.equal(requested.body.notified, true);
  const notification = await socket.event('notification');
  assert.equal(notification['quorvix-notification'], true);
  assert.equal(notification['quorvix-code'], requested.body.code);
  const fetched = await rest(base, 'GET', `api/1/sessions/${notification['quorvix-code']}`);
  assert.equal(fetched.body.state, 'pending');
  assert.equal(fetched.body.agent.name, 'Ada Agent');
  await socket.close();
});

test('bad messages close only their own socket, with a close code', async () => {
  const { base } = service;
  const bystander = await scriptedSession(base);
  const cases = [
    ['undecodable', Buffer.from([0xff, 0x00]), 1007],
    ['trailing bytes', Buffer.from([0x01, 0x02]), 1007],
    ['not an envelope', encode([1, 2, 3]), 1008],
    ['no data map', encode({ id: 1, event: 'frame', data: 5 }), 1008],
    ['text', 'hello', 1003],
    ['over the control limit', encode({ id: 1, event: 'x', data: { pad: new Uint8Array(65 * 1024) } }), 1009],
  ];
  for (const [what, bytes, code] of cases) {
    const { session, control, stream } = await scriptedSession(base);
    control.sendRaw(bytes);
    assert.equal((await control.closed).code, code, what);
    // The session's other socket and other sessions carry on.
    assert.equal((await stream.ack(stream.send('screen', {}))).ack, 2, what);
    await stream.close();
    assert.equal((await rest(base, 'GET', `api/1/sessions/${session.id}`)).status, 200);
  }
  assert.equal((await bystander.control.ack(bystander.control.send('x', {}))).ack, 2);
  await Promise.all([bystander.control.close(), bystander.stream.close()]);
});

test('a session nobody joins ends with "pending_timeout"', async () => {
  const quick = await startService({ state: path.join(tempDir(), 'state.json'), args: ['--pending-timeout', '0.2'] });
  try {
    const { control, stream } = await scriptedSession(quick.base);
    const ended = await control.event('session', (d) => d.state === 'ended');
    assert.equal(ended.ended_reason, 'pending_timeout');
    await Promise.all([control.close(), stream.close()]);
  } finally {
    await quick.stop();
  }
});

test('state survives a restart: sessions, codes, tokens and agent logins', async () => {
  const state = path.join(tempDir(), 'state.json');
  const first = await startService({ state });
  const { session, control, stream } = await scriptedSession(first.base);
  const agent = await agentLogin(first.base);
  await agent.call('POST', `sessions/${session.code}/join`);
  await first.stop();
  assert.equal((await control.closed).code, 1001);
  await stream.closed;

  const second = await startService({ state, port: first.port });
  try {
    assert.equal(second.base, first.base);
    const again = await rest(second.base, 'GET', `api/1/sessions/${session.code}`);
    assert.equal(again.body.id, session.id);
    assert.equal(again.body.control_token, session.control_token);
    assert.equal(again.body.agent.name, 'Ada Agent');
    const control2 = new DeviceSocket(session.control_url, session.control_token, ['session']);
    const stream2 = new DeviceSocket(session.stream_url, session.stream_token, ['sync']);
    await Promise.all([control2.ack(1), stream2.ack(1)]);
    await rest(second.base, 'PUT', `api/1/sessions/${session.id}`, { body: { state: 'active' } });
    await control2.event('session', (d) => d.state === 'active');
    assert.equal((await agent.call('GET', `sessions/${session.id}`)).body.state, 'active');
    await Promise.all([control2.close(), stream2.close()]);
  } finally {
    await second.stop();
  }
  assert.doesNotMatch(second.stderr() + first.stderr(), new RegExp(kLicense));
});

// Session life: who may move a session where, the deadlines of the waiting states, and the
// JSON form that the device and the agent each see.
import crypto from 'node:crypto';
import { newToken } from './store.js';

export const kCapabilities = [
  'pointer',
  'keypress',
  'drawing',
  'disappearing_ink',
  'arrows',
  'rectangles',
  'laser',
  'selectors',
  'full_device',
];
const kConsentStates = ['off', 'requested', 'rejected', 'on'];
const kMaxSessionsPerLicense = 1000;
const kEndedKept = 200;

export class HttpError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

const isObject = (v) => v !== null && typeof v === 'object' && !Array.isArray(v);
const now = () => new Date().toISOString();

export class Sessions {
  // `notify(session)` is told of every change (the socket hub pushes it on).
  constructor(store, config, log, notify) {
    this.store_ = store;
    this.config_ = config;
    this.log_ = log;
    this.notify_ = notify;
    this.timers_ = new Map();
  }

  // Deadlines that passed while the service was down end their sessions now.
  resumeTimers() {
    for (const session of this.store_.sessions.values()) this.schedule_(session);
  }

  stopTimers() {
    for (const timer of this.timers_.values()) clearTimeout(timer);
    this.timers_.clear();
  }

  get(license, idOrCode) {
    const session = this.store_.sessionByIdOrCode(idOrCode);
    if (!session || session.license !== license) throw new HttpError(404, 'Session not found');
    return session;
  }

  create(license, body, { agent, deviceId } = {}) {
    const count = [...this.store_.sessions.values()].filter((s) => s.license === license).length;
    if (count >= kMaxSessionsPerLicense) {
      this.store_.pruneEnded(license, kEndedKept);
      if ([...this.store_.sessions.values()].filter((s) => s.license === license).length >= kMaxSessionsPerLicense)
        throw new HttpError(429, 'Too many sessions');
    }
    if (body.custom_data !== undefined && !isObject(body.custom_data))
      throw new HttpError(400, '"custom_data" must be an object');
    if (body.device !== undefined && !isObject(body.device))
      throw new HttpError(400, '"device" must be an object');
    const offered = parseCapabilities(body.capabilities);
    const created = now();
    const session = {
      id: crypto.randomUUID(),
      code: this.store_.newCode(),
      license,
      state: 'pending',
      agent: agent ?? null,
      require_consent: this.config_.requireConsent || body.require_consent === true,
      full_device: 'off',
      remote_control: 'off',
      capabilities: [...kCapabilities],
      device_capabilities: offered,
      video_codecs: [...this.config_.videoCodecs],
      scale: this.config_.scale,
      custom_data: body.custom_data ?? {},
      device: body.device ?? null,
      device_id: deviceId ?? null,
      created,
      updated: created,
      expires: deadline(this.config_.pendingTimeout),
      activated: null,
      ended: null,
      ended_reason: null,
      control_token: newToken(),
      stream_token: newToken(),
    };
    this.store_.sessions.set(session.id, session);
    this.changed_(session);
    return session;
  }

  // A change sent by the device (PUT). Every field is checked before any is applied.
  updateFromDevice(session, body) {
    const change = {};
    if (body.state !== undefined) {
      const target = body.state;
      if (typeof target !== 'string') throw new HttpError(400, '"state" must be a string');
      if (target === 'ended') {
        if (session.state !== 'ended') change.end = 'device_ended';
      } else if (session.state === 'ended') {
        throw new HttpError(409, 'Session ended');
      } else if (target === 'authorizing' || target === 'active') {
        if (!session.agent) throw new HttpError(409, 'Session has no agent to admit');
        if (target === 'authorizing' && session.state === 'active')
          throw new HttpError(409, 'Session is already active');
        if (target !== session.state) change.state = target;
      } else if (target === 'pending') {
        if (session.state !== 'pending') throw new HttpError(409, 'A session cannot return to pending');
      } else {
        throw new HttpError(400, `Unknown state "${short(target)}"`);
      }
    } else if (session.state === 'ended' && Object.keys(body).some((k) => k !== 'capabilities')) {
      throw new HttpError(409, 'Session ended');
    }
    for (const field of ['full_device', 'remote_control']) {
      if (body[field] === undefined) continue;
      const value = body[field];
      if (!kConsentStates.includes(value))
        throw new HttpError(400, `"${field}" must be one of ${kConsentStates.join(', ')}`);
      if (value === 'requested') throw new HttpError(400, `Only the agent requests "${field}"`);
      if ((value === 'on' || value === 'rejected') && session[field] !== 'requested' && session[field] !== value)
        throw new HttpError(409, `"${field}" was not requested`);
      change[field] = value;
    }
    if (body.custom_data !== undefined) {
      if (!isObject(body.custom_data)) throw new HttpError(400, '"custom_data" must be an object');
      change.custom_data = body.custom_data;
    }
    if (body.device !== undefined) {
      if (!isObject(body.device)) throw new HttpError(400, '"device" must be an object');
      change.device = body.device;
    }
    if (body.capabilities !== undefined) change.device_capabilities = parseCapabilities(body.capabilities);

    if (change.state === 'authorizing') {
      session.state = 'authorizing';
      session.expires = deadline(this.config_.authorizingTimeout);
    } else if (change.state === 'active') {
      session.state = 'active';
      session.activated = now();
      session.expires = null;
    }
    for (const field of ['full_device', 'remote_control', 'custom_data', 'device', 'device_capabilities'])
      if (change[field] !== undefined) session[field] = change[field];
    if (change.end) this.end_(session, change.end);
    this.changed_(session);
    return session;
  }

  join(session, agent) {
    if (session.state === 'ended') throw new HttpError(410, 'Session ended');
    if (session.agent && session.agent.id !== agent.id) throw new HttpError(409, 'Session has another agent');
    if (session.agent) return session;
    if (session.state !== 'pending') throw new HttpError(409, 'Session is not waiting for an agent');
    session.agent = agent;
    this.changed_(session);
    return session;
  }

  // A change asked for by the session's agent.
  updateFromAgent(session, agent, body) {
    if (!session.agent || session.agent.id !== agent.id) throw new HttpError(403, 'Not this session\'s agent');
    if (session.state === 'ended') throw new HttpError(410, 'Session ended');
    const change = {};
    for (const field of ['full_device', 'remote_control']) {
      if (body[field] === undefined) continue;
      if (body[field] !== 'requested' && body[field] !== 'off')
        throw new HttpError(400, `"${field}" must be "requested" or "off"`);
      if (body[field] === 'requested' && session.state !== 'active')
        throw new HttpError(409, 'Session is not active');
      change[field] = body[field];
    }
    if (body.state !== undefined && body.state !== 'ended')
      throw new HttpError(400, 'The agent can only end a session');
    Object.assign(session, change);
    if (body.state === 'ended') this.end_(session, 'agent_ended');
    this.changed_(session);
    return session;
  }

  end_(session, reason) {
    session.state = 'ended';
    session.ended = now();
    session.ended_reason = reason;
    session.expires = null;
    this.log_.info(`session ${session.id} ended (${reason})`);
  }

  changed_(session) {
    session.updated = now();
    // Lets a reader that hears of a session by two roads (an answer and a push) keep the newer.
    session.revision = (session.revision ?? 0) + 1;
    this.store_.changed();
    this.schedule_(session);
    this.notify_(session);
  }

  schedule_(session) {
    clearTimeout(this.timers_.get(session.id));
    this.timers_.delete(session.id);
    if (!session.expires || (session.state !== 'pending' && session.state !== 'authorizing')) return;
    const state = session.state;
    const delay = Math.max(0, Date.parse(session.expires) - Date.now());
    const timer = setTimeout(() => {
      this.timers_.delete(session.id);
      if (session.state !== state || this.store_.sessions.get(session.id) !== session) return;
      this.end_(session, `${state}_timeout`);
      this.changed_(session);
    }, Math.min(delay, 2 ** 31 - 1));
    timer.unref();
    this.timers_.set(session.id, timer);
  }
}

function deadline(seconds) {
  return new Date(Date.now() + seconds * 1000).toISOString();
}

function short(text) {
  return text.length > 40 ? `${text.slice(0, 40)}…` : text;
}

function parseCapabilities(value) {
  if (value === undefined) return null;
  if (!Array.isArray(value) || value.some((v) => typeof v !== 'string'))
    throw new HttpError(400, '"capabilities" must be a list of strings');
  return value.filter((v) => kCapabilities.includes(v));
}

// The fields both sides read, with "agent" and the dates only once they exist: the library
// counts a present "agent" as having one.
function commonView(session, fields) {
  const view = {
    type: 'Session',
    id: session.id,
    code: session.code,
    state: session.state,
    require_consent: session.require_consent,
    full_device: session.full_device,
    remote_control: session.remote_control,
    capabilities: session.capabilities,
    video_codecs: session.video_codecs,
    scale: session.scale,
    custom_data: session.custom_data,
    created: session.created,
    updated: session.updated,
    ...fields,
  };
  if (session.agent) view.agent = session.agent;
  for (const field of ['expires', 'activated', 'ended', 'ended_reason'])
    if (session[field]) view[field] = session[field];
  return view;
}

// What the device reads: the session resource with its socket addresses and tokens.
export function deviceView(session, base) {
  return commonView(session, {
    redaction_selectors: [],
    unredaction_selectors: [],
    control_url: `${base}rt/sessions/${session.id}/control/`,
    control_token: session.control_token,
    stream_url: `${base}rt/sessions/${session.id}/stream/`,
    stream_token: session.stream_token,
  });
}

// What the agent reads: no socket tokens, but the device's details and the effective
// capabilities (the service's set narrowed by what the device offers).
export function agentView(session, extra = {}) {
  const effective = session.device_capabilities
    ? session.capabilities.filter((c) => session.device_capabilities.includes(c))
    : session.capabilities;
  return commonView(session, {
    capabilities: effective,
    device: session.device,
    device_id: session.device_id,
    revision: session.revision,
    ...extra,
  });
}

// The realtime side: the device's notification, control and stream sockets (numbered CBOR
// envelopes, acknowledged one by one) and the console's agent socket, and what passes
// between them.
import { encode, decode, isMap } from './cbor.js';
import { agentView } from './sessions.js';

// Close codes (RFC 6455): 1003 text where binary was expected, 1007 undecodable payload,
// 1008 decodable but not an envelope; 1009 is sent by `ws` itself for oversized messages.
const kUnsupportedData = 1003;
const kInvalidPayload = 1007;
const kPolicyViolation = 1008;
const kTryAgainLater = 1013;

// An agent that falls this far behind on frames is dropped rather than buffered for.
const kAgentBacklogLimit = 16 * 1024 * 1024;
const kMaxFilterEvents = 64;

// Events the agent may send on to the device's stream socket.
const kAgentEvents = new Set(['mouse', 'keypress', 'touch', 'drawing', 'laser', 'sync', 'probe', 'url']);
const kNeedRemoteControl = new Set(['mouse', 'keypress']);
// Events from the device's stream socket that agents watching the session receive.
const kDeviceEvents = new Set(['frame', 'screen', 'viewhierarchy', 'alive']);

class DeviceSocket {
  constructor(hub, ws, kind, owner) {
    this.hub_ = hub;
    this.ws_ = ws;
    this.kind = kind; // 'notification' | 'control' | 'stream'
    this.owner = owner; // session id, or device key (license and device id)
    this.filter = new Set();
    this.ackTail_ = Promise.resolve();
    this.received = 0;
    ws.on('message', (data, isBinary) => this.onMessage_(data, isBinary));
    ws.on('error', (error) => hub.log.warn(`${this.describe()} socket error: ${error.message}`));
  }

  // Device keys carry the license, which stays out of the log.
  describe() {
    return `${this.kind} socket of ${this.owner.split('\n').pop()}`;
  }

  send(event, data) {
    if (this.ws_.readyState === this.ws_.OPEN) this.ws_.send(encode({ event, data }));
  }

  // Delivered only when the device subscribed to the event with "filter".
  deliver(event, data) {
    if (!this.filter.has(event)) return false;
    this.send(event, data);
    return true;
  }

  close(code, reason) {
    this.closing_ = true;
    this.ws_.close(code, reason);
  }

  onMessage_(bytes, isBinary) {
    // Whatever was already in flight behind a message that closed the socket is not read.
    if (this.closing_) return;
    if (!isBinary) {
      this.hub_.log.warn(`${this.describe()}: text message, closing`);
      return this.close(kUnsupportedData, 'binary CBOR only');
    }
    let message;
    try {
      message = decode(bytes);
    } catch (error) {
      this.hub_.log.warn(`${this.describe()}: undecodable message (${error.message}), closing`);
      return this.close(kInvalidPayload, 'undecodable CBOR');
    }
    if (!isMap(message) || typeof message.event !== 'string' || !isMap(message.data)) {
      this.hub_.log.warn(`${this.describe()}: message is not an event envelope, closing`);
      return this.close(kPolicyViolation, 'expected {"id", "event", "data"}');
    }
    ++this.received;
    // Acknowledged in order of arrival; a frame only once every watching agent has it, so
    // the device's own window of unacknowledged frames follows the slowest agent.
    const settled = this.hub_.fromDevice(this, message.event, message.data);
    const id = message.id;
    if (typeof id === 'number' && Number.isInteger(id) && id >= 0) {
      this.ackTail_ = this.ackTail_.then(() => settled).then(() => this.sendAck_(id));
    }
  }

  sendAck_(id) {
    if (this.ws_.readyState === this.ws_.OPEN) this.ws_.send(encode({ ack: id }));
  }
}

class AgentSocket {
  constructor(hub, ws, session, agent) {
    this.hub_ = hub;
    this.ws_ = ws;
    this.sessionId = session.id;
    this.agent = agent;
    ws.on('message', (data, isBinary) => this.onMessage_(data, isBinary));
    ws.on('error', (error) => hub.log.warn(`agent socket error: ${error.message}`));
  }

  send(event, data) {
    if (this.ws_.readyState === this.ws_.OPEN) this.ws_.send(encode({ event, data }));
  }

  // Resolves once the bytes have been handed to the kernel (or the socket is gone).
  sendEncoded(bytes) {
    if (this.ws_.readyState !== this.ws_.OPEN) return Promise.resolve();
    if (this.ws_.bufferedAmount > kAgentBacklogLimit) {
      this.hub_.log.warn(`agent ${this.agent.id} is too far behind, closing its socket`);
      this.ws_.close(kTryAgainLater, 'too far behind');
      return Promise.resolve();
    }
    return new Promise((resolve) => this.ws_.send(bytes, () => resolve()));
  }

  onMessage_(bytes, isBinary) {
    let message;
    try {
      if (!isBinary) throw new Error('text message');
      message = decode(bytes);
    } catch (error) {
      this.hub_.log.warn(`agent socket: undecodable message (${error.message}), closing`);
      return this.ws_.close(isBinary ? kInvalidPayload : kUnsupportedData, 'undecodable');
    }
    if (!isMap(message) || typeof message.event !== 'string' || !isMap(message.data)) {
      this.hub_.log.warn('agent socket: message is not an event envelope, closing');
      return this.ws_.close(kPolicyViolation, 'expected {"event", "data"}');
    }
    this.hub_.fromAgent(this, message.event, message.data);
  }
}

export class Hub {
  constructor(log) {
    this.log = log;
    this.store = null;
    this.deviceSockets_ = new Map(); // owner -> Set<DeviceSocket>
    this.agentSockets_ = new Map(); // session id -> Set<AgentSocket>
    this.pendingProbes_ = new Map(); // nonce -> resolve
    this.stats_ = new Map(); // session id -> { frames, bytes, last }
  }

  track_(map, key, item, ws) {
    if (!map.has(key)) map.set(key, new Set());
    map.get(key).add(item);
    ws.on('close', () => {
      const set = map.get(key);
      set?.delete(item);
      if (set?.size === 0) map.delete(key);
    });
  }

  addDevice(ws, kind, owner) {
    const socket = new DeviceSocket(this, ws, kind, owner);
    this.track_(this.deviceSockets_, `${kind}:${owner}`, socket, ws);
    this.log.info(`${socket.describe()} opened`);
    ws.on('close', (code) => {
      this.log.info(`${socket.describe()} closed (${code})`);
      if (kind === 'stream') this.agentsChanged_(owner);
    });
    if (kind === 'stream') this.agentsChanged_(owner);
    return socket;
  }

  addAgent(ws, session, agent) {
    const socket = new AgentSocket(this, ws, session, agent);
    this.track_(this.agentSockets_, session.id, socket, ws);
    socket.send('session', this.agentSessionView(session));
    return socket;
  }

  devicesOf(kind, owner) {
    return [...(this.deviceSockets_.get(`${kind}:${owner}`) ?? [])];
  }

  agentsOf(sessionId) {
    return [...(this.agentSockets_.get(sessionId) ?? [])];
  }

  agentSessionView(session) {
    const stats = this.stats_.get(session.id);
    return agentView(session, {
      device_connected: this.devicesOf('stream', session.id).length > 0,
      frames_received: stats?.frames ?? 0,
    });
  }

  agentsChanged_(sessionId) {
    const session = this.store.sessions.get(sessionId);
    if (session) for (const agent of this.agentsOf(sessionId)) agent.send('session', this.agentSessionView(session));
  }

  // Every change of a session reaches its control sockets and its agents.
  sessionChanged(session, deviceView) {
    for (const socket of this.devicesOf('control', session.id)) socket.deliver('session', deviceView);
    for (const agent of this.agentsOf(session.id)) agent.send('session', this.agentSessionView(session));
  }

  // Returns a promise that settles when the message has gone wherever it goes.
  fromDevice(socket, event, data) {
    if (event === 'filter') {
      const events = data.events;
      if (Array.isArray(events) && events.length <= kMaxFilterEvents && events.every((e) => typeof e === 'string'))
        socket.filter = new Set(events);
      else this.log.warn(`${socket.describe()}: ignored a malformed filter`);
      return undefined;
    }
    if (event === 'alive' && typeof data.nonce === 'string' && this.pendingProbes_.has(data.nonce)) {
      this.pendingProbes_.get(data.nonce)(data);
      return undefined;
    }
    if (socket.kind !== 'stream' || !kDeviceEvents.has(event)) {
      this.log.debug(`${socket.describe()}: ignored "${event}"`);
      return undefined;
    }
    if (event === 'frame') {
      const stats = this.stats_.get(socket.owner) ?? { frames: 0, bytes: 0 };
      stats.frames += 1;
      stats.bytes += data.data instanceof Uint8Array ? data.data.length : 0;
      this.stats_.set(socket.owner, stats);
    }
    const agents = this.agentsOf(socket.owner);
    if (agents.length === 0) return undefined;
    const bytes = encode({ event, data });
    return Promise.all(agents.map((agent) => agent.sendEncoded(bytes)));
  }

  fromAgent(agent, event, data) {
    const session = this.store.sessions.get(agent.sessionId);
    if (!kAgentEvents.has(event)) return agent.send('notice', { message: `unknown event "${event}"` });
    // Asking for a key frame or a sign of life is fine before the device admits the agent.
    const beforeActive = event === 'sync' || event === 'probe';
    if (!session || session.state === 'ended' || (session.state !== 'active' && !beforeActive))
      return agent.send('notice', { message: `"${event}" not sent: the session is not active` });
    if (kNeedRemoteControl.has(event) && session.remote_control !== 'on')
      return agent.send('notice', { message: `"${event}" not sent: remote control is not on` });
    let delivered = 0;
    for (const socket of this.devicesOf('stream', session.id)) if (socket.deliver(event, data)) ++delivered;
    if (delivered === 0) agent.send('notice', { message: `"${event}" not sent: the device is not listening for it` });
  }

  // Sends "probe" on the device's notification sockets and waits for its "alive".
  probeDevice(deviceKey, timeoutMs) {
    const sockets = this.devicesOf('notification', deviceKey).filter((s) => s.filter.has('probe'));
    if (sockets.length === 0) return Promise.resolve(null);
    const nonce = Math.random().toString(36).slice(2) + Date.now().toString(36);
    const sent = Date.now();
    return new Promise((resolve) => {
      const timer = setTimeout(() => finish(null), timeoutMs);
      const finish = (value) => {
        clearTimeout(timer);
        this.pendingProbes_.delete(nonce);
        resolve(value);
      };
      this.pendingProbes_.set(nonce, () => finish({ rtt_ms: Date.now() - sent }));
      for (const socket of sockets) socket.send('probe', { nonce, sent: new Date(sent).toISOString() });
    });
  }

  notifyDevice(deviceKey, data) {
    let delivered = 0;
    for (const socket of this.devicesOf('notification', deviceKey)) if (socket.deliver('notification', data)) ++delivered;
    return delivered;
  }

  closeAll(code, reason) {
    for (const set of [...this.deviceSockets_.values(), ...this.agentSockets_.values()])
      for (const socket of set) socket.ws_.close(code, reason);
  }
}

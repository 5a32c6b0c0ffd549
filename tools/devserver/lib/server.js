// The HTTP side of the service: the library's REST API under "api/1/", the console's agent
// API under "agent/1/", the socket upgrades, and the console's files.
import http from 'node:http';
import https from 'node:https';
import fs from 'node:fs';
import path from 'node:path';
import crypto from 'node:crypto';
import net from 'node:net';
import { fileURLToPath } from 'node:url';
import { WebSocketServer } from 'ws';
import { Store, newToken, tokensEqual } from './store.js';
import { Sessions, HttpError, deviceView, agentView } from './sessions.js';
import { Hub } from './sockets.js';

const kRoot = path.dirname(path.dirname(fileURLToPath(import.meta.url)));
const kPublic = path.join(kRoot, 'public');
const kCborX = path.join(kRoot, 'node_modules', 'cbor-x');

export const kDevLicense = 'quorvix-dev-license';
const kMaxBody = 1024 * 1024;
const kMaxDevicesPerLicense = 1000;
const kMaxAgents = 1000;
const kDeviceIdPattern = /^[A-Za-z0-9._-]{1,128}$/;
const kApiVersionPattern = /^1\.\d{1,4}(\.\d{1,4})?$/;
const kAgentProtocol = 'quorvix-agent.1';

export const defaults = {
  host: '127.0.0.1',
  port: 8790,
  licenses: [kDevLicense],
  stateFile: null,
  pendingTimeout: 600,
  authorizingTimeout: 120,
  nextRegistration: 3600,
  requireConsent: true,
  videoCodecs: ['video/avc', 'image/jpeg'],
  scale: 0.5,
  maxMessageBytes: 64 * 1024,
  maxFrameBytes: 8 * 1024 * 1024,
  probeTimeoutMs: 5000,
  cert: null,
  key: null,
  publicUrl: null,
  logLevel: 'info',
};

const kStaticTypes = {
  '.html': 'text/html; charset=utf-8',
  '.js': 'text/javascript; charset=utf-8',
  '.css': 'text/css; charset=utf-8',
  '.svg': 'image/svg+xml',
  '.png': 'image/png',
};

export function makeLogger(level) {
  const order = { debug: 0, info: 1, warn: 2, error: 3, silent: 4 };
  const threshold = order[level] ?? 1;
  const line = (name) => (text) => {
    if (order[name] >= threshold) process.stderr.write(`${new Date().toISOString()} ${name}: ${text}\n`);
  };
  return { debug: line('debug'), info: line('info'), warn: line('warn'), error: line('error') };
}

function header(req, name) {
  const value = req.headers[name.toLowerCase()];
  return Array.isArray(value) ? value[0] : value;
}

function bearer(req) {
  const match = /^Bearer (\S+)$/.exec(header(req, 'authorization') ?? '');
  return match?.[1];
}

function sendJson(res, status, body) {
  const text = JSON.stringify(body);
  res.writeHead(status, {
    'Content-Type': 'application/json; charset=utf-8',
    'Content-Length': Buffer.byteLength(text),
    'Cache-Control': 'no-store',
  });
  res.end(text);
}

function readBody(req) {
  return new Promise((resolve, reject) => {
    const chunks = [];
    let size = 0;
    req.on('data', (chunk) => {
      size += chunk.length;
      if (size > kMaxBody) {
        reject(new HttpError(413, 'Request body too large'));
        req.removeAllListeners('data');
        req.resume();
        return;
      }
      chunks.push(chunk);
    });
    req.on('end', () => resolve(Buffer.concat(chunks)));
    req.on('error', reject);
  });
}

// An empty body reads as {}; anything else must be a JSON object.
async function readJsonObject(req) {
  const bytes = await readBody(req);
  if (bytes.length === 0) return {};
  let value;
  try {
    value = JSON.parse(bytes.toString('utf8'));
  } catch {
    throw new HttpError(400, 'Request body is not valid JSON');
  }
  if (value === null || typeof value !== 'object' || Array.isArray(value))
    throw new HttpError(400, 'Request body must be a JSON object');
  return value;
}

function rejectUpgrade(socket, status, message) {
  const body = JSON.stringify({ message });
  socket.end(
    `HTTP/1.1 ${status} ${http.STATUS_CODES[status]}\r\nConnection: close\r\n` +
      `Content-Type: application/json\r\nContent-Length: ${Buffer.byteLength(body)}\r\n\r\n${body}`,
  );
}

export class DevServer {
  constructor(options = {}) {
    this.config = { ...defaults, ...options };
    this.log = makeLogger(this.config.logLevel);
    this.store = new Store(this.config.stateFile, this.log);
    this.hub = new Hub(this.log);
    this.hub.store = this.store;
    this.sessions = new Sessions(this.store, this.config, this.log, (session) =>
      this.hub.sessionChanged(session, deviceView(session, this.baseUrl)),
    );
    this.licenses = new Set(this.config.licenses);
    this.baseUrl = null;
  }

  async start() {
    this.store.load();
    const tls = this.config.cert && this.config.key;
    const handler = (req, res) => this.handle_(req, res);
    this.server_ = tls
      ? https.createServer({ cert: fs.readFileSync(this.config.cert), key: fs.readFileSync(this.config.key) }, handler)
      : http.createServer(handler);
    this.server_.on('upgrade', (req, socket, head) => this.upgrade_(req, socket, head));
    this.server_.on('clientError', (error, socket) => socket.destroy());
    // Separate servers so that each kind of socket has its own message size limit.
    // Frames are compressed already, so the stream socket declines per-message deflate.
    this.smallWss_ = new WebSocketServer({ noServer: true, maxPayload: this.config.maxMessageBytes, perMessageDeflate: true });
    this.streamWss_ = new WebSocketServer({ noServer: true, maxPayload: this.config.maxFrameBytes, perMessageDeflate: false });
    this.agentWss_ = new WebSocketServer({
      noServer: true,
      maxPayload: this.config.maxFrameBytes,
      handleProtocols: (protocols) => (protocols.has(kAgentProtocol) ? kAgentProtocol : false),
    });
    await new Promise((resolve, reject) => {
      this.server_.once('error', reject);
      this.server_.listen(this.config.port, this.config.host, resolve);
    });
    const { address, port } = this.server_.address();
    // A host name given to bind to is kept in the base address, so that a certificate for
    // that name verifies; an address is written as bound.
    const named = net.isIP(this.config.host) === 0 ? this.config.host : address;
    const host = named.includes(':') ? `[${named}]` : named;
    this.baseUrl = this.config.publicUrl ?? `${tls ? 'https' : 'http'}://${host}:${port}/`;
    if (!this.baseUrl.endsWith('/')) this.baseUrl += '/';
    this.port = port;
    this.sessions.resumeTimers();
    return this.baseUrl;
  }

  async close() {
    this.sessions.stopTimers();
    this.hub.closeAll(1001, 'service stopping');
    this.store.flush();
    await new Promise((resolve) => {
      this.server_.close(() => resolve());
      this.server_.closeAllConnections?.();
    });
  }

  // ---- HTTP ----

  async handle_(req, res) {
    try {
      const url = new URL(req.url, 'http://service.invalid');
      const parts = url.pathname.split('/').filter(Boolean).map(decodeURIComponent);
      if (parts[0] === 'api' && parts[1] === '1') return await this.api_(req, res, parts.slice(2));
      if (parts[0] === 'agent' && parts[1] === '1') return await this.agentApi_(req, res, parts.slice(2));
      if (req.method === 'GET' || req.method === 'HEAD') return this.static_(req, res, url.pathname);
      throw new HttpError(404, 'Not found');
    } catch (error) {
      if (error instanceof HttpError) return sendJson(res, error.status, { message: error.message });
      if (error instanceof URIError) return sendJson(res, 400, { message: 'Malformed path' });
      this.log.error(`${req.method} ${req.url?.split('?')[0]}: ${error.stack ?? error}`);
      if (!res.headersSent) sendJson(res, 500, { message: 'Internal error' });
    }
  }

  // The library's side: every request names the API version and the account's license.
  async api_(req, res, parts) {
    const version = header(req, 'X-QuorviAPIVersion');
    if (!version) throw new HttpError(400, 'Missing X-QuorviAPIVersion header');
    if (!kApiVersionPattern.test(version)) throw new HttpError(400, 'Unsupported API version');
    const license = header(req, 'X-QuorviLicense');
    if (!license) throw new HttpError(401, 'Missing X-QuorviLicense header');
    if (!this.licenses.has(license)) throw new HttpError(401, 'Unknown license');
    const method = req.method;

    if (parts[0] === 'devices' && parts.length === 2) {
      const id = parts[1];
      if (!kDeviceIdPattern.test(id)) throw new HttpError(400, 'Malformed device id');
      if (method === 'PUT') return sendJson(res, 200, this.registerDevice_(license, id, await readJsonObject(req)));
      if (method === 'DELETE') {
        this.deleteDevice_(license, id);
        res.writeHead(204).end();
        return undefined;
      }
      throw new HttpError(405, 'Method not allowed');
    }
    if (parts[0] === 'sessions' && parts.length === 1) {
      if (method !== 'POST') throw new HttpError(405, 'Method not allowed');
      const session = this.sessions.create(license, await readJsonObject(req));
      this.noteDeviceToken_(session, req);
      this.log.info(`session ${session.id} created (code ${session.code})`);
      return sendJson(res, 201, deviceView(session, this.baseUrl));
    }
    if (parts[0] === 'sessions' && parts.length === 2) {
      if (method === 'GET') {
        const session = this.sessions.get(license, parts[1]);
        this.noteDeviceToken_(session, req);
        return sendJson(res, 200, deviceView(session, this.baseUrl));
      }
      if (method === 'PUT') {
        const body = await readJsonObject(req);
        const session = this.sessions.get(license, parts[1]);
        this.noteDeviceToken_(session, req);
        this.sessions.updateFromDevice(session, body);
        return sendJson(res, 200, deviceView(session, this.baseUrl));
      }
      throw new HttpError(405, 'Method not allowed');
    }
    throw new HttpError(404, 'Not found');
  }

  // Recorded for the console (which device instance holds the session); not enforced.
  noteDeviceToken_(session, req) {
    const token = header(req, 'X-QuorviDeviceToken');
    if (token && !session.device_token) {
      session.device_token = crypto.createHash('sha256').update(token).digest('hex').slice(0, 16);
      this.store.changed();
    }
  }

  registerDevice_(license, id, body) {
    for (const field of ['push_token', 'push_provider'])
      if (body[field] !== undefined && typeof body[field] !== 'string')
        throw new HttpError(400, `"${field}" must be a string`);
    for (const field of ['device', 'custom_data'])
      if (body[field] !== undefined && (body[field] === null || typeof body[field] !== 'object' || Array.isArray(body[field])))
        throw new HttpError(400, `"${field}" must be an object`);
    const key = Store.deviceKey(license, id);
    let device = this.store.devices.get(key);
    if (!device) {
      const count = [...this.store.devices.values()].filter((d) => d.license === license).length;
      if (count >= kMaxDevicesPerLicense) throw new HttpError(429, 'Too many devices');
      device = { id, license, notification_token: newToken(), registered: new Date().toISOString() };
      this.store.devices.set(key, device);
      this.log.info(`device ${id} registered`);
    }
    Object.assign(device, {
      push_token: body.push_token ?? '',
      push_provider: body.push_provider ?? null,
      device: body.device ?? null,
      custom_data: body.custom_data ?? {},
      updated: new Date().toISOString(),
    });
    this.store.changed();
    return {
      type: 'Device',
      id,
      push_token: device.push_token,
      push_provider: device.push_provider,
      custom_data: device.custom_data,
      notification_url: `${this.baseUrl}rt/devices/${id}/`,
      notification_token: device.notification_token,
      next_registration: this.config.nextRegistration,
    };
  }

  deleteDevice_(license, id) {
    const key = Store.deviceKey(license, id);
    if (!this.store.devices.delete(key)) throw new HttpError(404, 'Device not found');
    for (const socket of this.hub.devicesOf('notification', key)) socket.close(1000, 'device deregistered');
    this.store.changed();
    this.log.info(`device ${id} deregistered`);
  }

  // The console's side. A login with a license gives a bearer token for the rest.
  async agentApi_(req, res, parts) {
    const method = req.method;
    if (parts[0] === 'login' && parts.length === 1) {
      if (method !== 'POST') throw new HttpError(405, 'Method not allowed');
      const body = await readJsonObject(req);
      if (typeof body.license !== 'string' || !this.licenses.has(body.license))
        throw new HttpError(401, 'Unknown license');
      const name = typeof body.name === 'string' && body.name.trim() ? body.name.trim().slice(0, 80) : 'Agent';
      const email = typeof body.email === 'string' ? body.email.slice(0, 120) : '';
      if (this.store.agents.size >= kMaxAgents) {
        const oldest = [...this.store.agents.values()].sort((a, b) => (a.created < b.created ? -1 : 1))[0];
        this.store.agents.delete(oldest.token);
      }
      const login = {
        token: newToken(),
        license: body.license,
        agent: { id: `agent-${crypto.randomUUID()}`, name, email },
        created: new Date().toISOString(),
      };
      this.store.agents.set(login.token, login);
      this.store.changed();
      return sendJson(res, 200, { token: login.token, agent: login.agent });
    }
    const login = this.agentLogin_(bearer(req));
    if (!login) throw new HttpError(401, 'Log in first');
    const { license, agent } = login;

    if (parts[0] === 'sessions' && parts.length === 1 && method === 'GET') {
      const list = [...this.store.sessions.values()]
        .filter((s) => s.license === license)
        .sort((a, b) => (a.created < b.created ? 1 : -1))
        .slice(0, 100)
        .map((s) => this.hub.agentSessionView(s));
      return sendJson(res, 200, { sessions: list });
    }
    if (parts[0] === 'sessions' && parts.length === 3 && parts[2] === 'join' && method === 'POST') {
      const session = this.sessions.join(this.sessions.get(license, parts[1]), agent);
      return sendJson(res, 200, this.hub.agentSessionView(session));
    }
    if (parts[0] === 'sessions' && parts.length === 2) {
      const session = this.sessions.get(license, parts[1]);
      if (method === 'GET') return sendJson(res, 200, this.hub.agentSessionView(session));
      if (method === 'PUT') {
        const body = await readJsonObject(req);
        return sendJson(res, 200, this.hub.agentSessionView(this.sessions.updateFromAgent(session, agent, body)));
      }
      throw new HttpError(405, 'Method not allowed');
    }
    if (parts[0] === 'devices' && parts.length === 1 && method === 'GET') {
      const list = [...this.store.devices.values()]
        .filter((d) => d.license === license)
        .map((d) => ({
          id: d.id,
          device: d.device,
          custom_data: d.custom_data,
          updated: d.updated,
          online: this.hub.devicesOf('notification', Store.deviceKey(license, d.id)).length > 0,
        }));
      return sendJson(res, 200, { devices: list });
    }
    if (parts[0] === 'devices' && parts.length === 3 && method === 'POST') {
      const key = Store.deviceKey(license, parts[1]);
      if (!this.store.devices.has(key)) throw new HttpError(404, 'Device not found');
      if (parts[2] === 'probe') {
        const answer = await this.hub.probeDevice(key, this.config.probeTimeoutMs);
        return sendJson(res, 200, answer ? { alive: true, rtt_ms: answer.rtt_ms } : { alive: false });
      }
      if (parts[2] === 'sessions') {
        // The agent asks for this device: a session with the agent already in it, announced
        // on the device's notification socket the way a push payload would announce it.
        const session = this.sessions.create(license, {}, { agent, deviceId: parts[1] });
        const delivered = this.hub.notifyDevice(key, {
          'quorvix-notification': true,
          'quorvix-code': session.code,
        });
        this.log.info(`session ${session.id} requested for device ${parts[1]}`);
        return sendJson(res, 201, { ...this.hub.agentSessionView(session), notified: delivered > 0 });
      }
    }
    throw new HttpError(404, 'Not found');
  }

  agentLogin_(token) {
    if (!token) return undefined;
    const login = this.store.agents.get(token);
    return login && this.licenses.has(login.license) ? login : undefined;
  }

  static_(req, res, pathname) {
    if (pathname === '/' || pathname === '/console') {
      res.writeHead(302, { Location: '/console/' }).end();
      return;
    }
    let file;
    if (pathname.startsWith('/console/')) {
      const rel = pathname.slice('/console/'.length) || 'index.html';
      file = path.join(kPublic, rel);
      if (!file.startsWith(kPublic + path.sep)) throw new HttpError(404, 'Not found');
    } else if (pathname === '/vendor/cbor-x/decode.js' || pathname === '/vendor/cbor-x/encode.js') {
      file = path.join(kCborX, path.basename(pathname));
    } else {
      throw new HttpError(404, 'Not found');
    }
    const type = kStaticTypes[path.extname(file)];
    let bytes;
    try {
      if (!type) throw new Error('type');
      bytes = fs.readFileSync(file);
    } catch {
      throw new HttpError(404, 'Not found');
    }
    res.writeHead(200, {
      'Content-Type': type,
      'Content-Length': bytes.length,
      'Cache-Control': 'no-cache',
      'Content-Security-Policy':
        "default-src 'self'; img-src 'self' blob: data:; connect-src 'self' ws: wss:; style-src 'self'",
      'X-Content-Type-Options': 'nosniff',
    });
    res.end(req.method === 'HEAD' ? undefined : bytes);
  }

  // ---- socket upgrades ----

  upgrade_(req, socket, head) {
    socket.on('error', () => socket.destroy());
    let parts;
    try {
      parts = new URL(req.url, 'http://service.invalid').pathname.split('/').filter(Boolean).map(decodeURIComponent);
    } catch {
      return rejectUpgrade(socket, 400, 'Malformed path');
    }
    const tail = parts.slice(-3).join('/');
    // rt/sessions/:id/(control|stream)/sockets/1/ws
    if (parts.length === 7 && parts[0] === 'rt' && parts[1] === 'sessions' && tail === 'sockets/1/ws') {
      const session = this.store.sessions.get(parts[2]);
      const kind = parts[3];
      if (!session || (kind !== 'control' && kind !== 'stream')) return rejectUpgrade(socket, 404, 'Not found');
      if (!tokensEqual(session[`${kind}_token`], bearer(req))) return rejectUpgrade(socket, 401, 'Bad token');
      const wss = kind === 'stream' ? this.streamWss_ : this.smallWss_;
      return wss.handleUpgrade(req, socket, head, (ws) => this.hub.addDevice(ws, kind, session.id));
    }
    // rt/devices/:id/sockets/1/ws: the device's notification socket. The token names the
    // device, whichever license it was registered under.
    if (parts.length === 6 && parts[0] === 'rt' && parts[1] === 'devices' && tail === 'sockets/1/ws') {
      const token = bearer(req);
      const device = [...this.store.devices.values()].find(
        (d) => d.id === parts[2] && tokensEqual(d.notification_token, token),
      );
      if (!device) return rejectUpgrade(socket, 401, 'Bad token');
      const key = Store.deviceKey(device.license, device.id);
      return this.smallWss_.handleUpgrade(req, socket, head, (ws) => this.hub.addDevice(ws, 'notification', key));
    }
    // agent/1/sessions/:id/ws, the token in the second subprotocol ("token.<hex>").
    if (parts.length === 5 && parts[0] === 'agent' && parts[1] === '1' && parts[2] === 'sessions' && parts[4] === 'ws') {
      const protocols = (header(req, 'sec-websocket-protocol') ?? '').split(',').map((p) => p.trim());
      const token = protocols.find((p) => p.startsWith('token.'))?.slice('token.'.length);
      const login = this.agentLogin_(token);
      if (!login) return rejectUpgrade(socket, 401, 'Log in first');
      const session = this.store.sessionByIdOrCode(parts[3]);
      if (!session || session.license !== login.license) return rejectUpgrade(socket, 404, 'Session not found');
      if (!session.agent || session.agent.id !== login.agent.id)
        return rejectUpgrade(socket, 403, 'Join the session first');
      return this.agentWss_.handleUpgrade(req, socket, head, (ws) => this.hub.addAgent(ws, session, login.agent));
    }
    return rejectUpgrade(socket, 404, 'Not found');
  }
}

export { agentView };

// The service's state: devices, sessions (with their codes and socket tokens) and agent logins.
// Kept in one JSON file, rewritten atomically after every change, so that a restarted service
// answers the library's reconnecting sockets with the same sessions and tokens.
import fs from 'node:fs';
import path from 'node:path';
import crypto from 'node:crypto';

const kVersion = 1;

export function newToken() {
  return crypto.randomBytes(16).toString('hex');
}

export function tokensEqual(expected, given) {
  if (typeof expected !== 'string' || typeof given !== 'string') return false;
  const a = Buffer.from(expected);
  const b = Buffer.from(given);
  return a.length === b.length && crypto.timingSafeEqual(a, b);
}

export class Store {
  constructor(file, log) {
    this.file_ = file;
    this.log_ = log;
    this.devices = new Map(); // key `${license}\n${id}` -> device record
    this.sessions = new Map(); // id -> session record
    this.agents = new Map(); // token -> agent login
    this.dirty_ = false;
  }

  static deviceKey(license, id) {
    return `${license}\n${id}`;
  }

  load() {
    if (!this.file_) return;
    let text;
    try {
      text = fs.readFileSync(this.file_, 'utf8');
    } catch (error) {
      if (error.code === 'ENOENT') return;
      throw new Error(`cannot read state file ${this.file_}: ${error.message}`);
    }
    let state;
    try {
      state = JSON.parse(text);
    } catch {
      throw new Error(`state file ${this.file_} is not valid JSON; move it away to start afresh`);
    }
    if (!state || state.version !== kVersion)
      throw new Error(`state file ${this.file_} has an unknown version; move it away to start afresh`);
    for (const device of state.devices ?? [])
      this.devices.set(Store.deviceKey(device.license, device.id), device);
    for (const session of state.sessions ?? []) this.sessions.set(session.id, session);
    for (const agent of state.agents ?? []) this.agents.set(agent.token, agent);
  }

  // Coalesces the changes of one turn of the event loop into one write.
  changed() {
    if (!this.file_ || this.dirty_) return;
    this.dirty_ = true;
    setImmediate(() => this.flush());
  }

  flush() {
    if (!this.file_ || !this.dirty_) return;
    this.dirty_ = false;
    const state = {
      version: kVersion,
      devices: [...this.devices.values()],
      sessions: [...this.sessions.values()],
      agents: [...this.agents.values()],
    };
    const tmp = `${this.file_}.${process.pid}.tmp`;
    try {
      fs.mkdirSync(path.dirname(this.file_), { recursive: true, mode: 0o700 });
      const fd = fs.openSync(tmp, 'w', 0o600);
      try {
        fs.writeFileSync(fd, JSON.stringify(state));
        fs.fsyncSync(fd);
      } finally {
        fs.closeSync(fd);
      }
      fs.renameSync(tmp, this.file_);
    } catch (error) {
      this.log_.error(`cannot write state file: ${error.message}`);
      fs.rmSync(tmp, { force: true });
    }
  }

  sessionByIdOrCode(idOrCode) {
    const byId = this.sessions.get(idOrCode);
    if (byId) return byId;
    // Codes are never reused, so at most one session carries a given code.
    for (const session of this.sessions.values()) if (session.code === idOrCode) return session;
    return undefined;
  }

  newCode() {
    const used = new Set([...this.sessions.values()].map((s) => s.code));
    for (let attempt = 0; attempt < 1000; ++attempt) {
      const code = String(crypto.randomInt(0, 1_000_000)).padStart(6, '0');
      if (!used.has(code)) return code;
    }
    throw new Error('no free session code');
  }

  // Ended sessions beyond the newest `keep` of a license are forgotten, so a client that
  // creates sessions in a loop cannot grow the state without bound.
  pruneEnded(license, keep) {
    const ended = [...this.sessions.values()]
      .filter((s) => s.license === license && s.state === 'ended')
      .sort((a, b) => (a.ended < b.ended ? 1 : -1));
    for (const session of ended.slice(keep)) this.sessions.delete(session.id);
  }
}

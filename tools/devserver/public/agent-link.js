// The console's two ways to the service: the agent REST API (bearer token from the login)
// and one CBOR WebSocket per watched session.
import { Encoder } from '/vendor/cbor-x/encode.js';
import { Decoder } from '/vendor/cbor-x/decode.js';

const encoder = new Encoder({ useRecords: false, tagUint8Array: false, variableMapSize: true, useTag259ForMaps: false });
const decoder = new Decoder({ useRecords: false, int64AsNumber: true });

export class ApiError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

export async function api(token, method, path, body) {
  const headers = { 'Content-Type': 'application/json' };
  if (token) headers.Authorization = `Bearer ${token}`;
  const res = await fetch(`/agent/1/${path}`, {
    method,
    headers,
    body: body === undefined ? undefined : JSON.stringify(body),
  });
  const answer = await res.json().catch(() => ({}));
  if (!res.ok) throw new ApiError(res.status, answer.message ?? `HTTP ${res.status}`);
  return answer;
}

// Reconnects after a drop (1 s, then doubling up to 10 s) until closed on purpose.
export class SessionLink {
  constructor(sessionId, token, { onEvent, onState }) {
    this.url_ = `${location.protocol === 'https:' ? 'wss' : 'ws'}://${location.host}/agent/1/sessions/${encodeURIComponent(sessionId)}/ws`;
    this.token_ = token;
    this.onEvent_ = onEvent;
    this.onState_ = onState;
    this.closed_ = false;
    this.delay_ = 1000;
    this.openCount = 0; // connections made, the first included
    this.connect_();
  }

  connect_() {
    const ws = new WebSocket(this.url_, ['quorvix-agent.1', `token.${this.token_}`]);
    ws.binaryType = 'arraybuffer';
    ws.onopen = () => {
      this.delay_ = 1000;
      ++this.openCount;
      this.onState_('open');
    };
    ws.onmessage = (message) => {
      if (!(message.data instanceof ArrayBuffer)) return;
      let envelope;
      try {
        envelope = decoder.decode(new Uint8Array(message.data));
      } catch {
        return;
      }
      if (envelope && typeof envelope.event === 'string') this.onEvent_(envelope.event, envelope.data ?? {});
    };
    ws.onclose = (event) => {
      if (this.ws_ !== ws) return;
      this.onState_('closed', event.code);
      if (this.closed_) return;
      this.timer_ = setTimeout(() => this.connect_(), this.delay_);
      this.delay_ = Math.min(this.delay_ * 2, 10_000);
    };
    this.ws_ = ws;
  }

  get isOpen() {
    return this.ws_?.readyState === WebSocket.OPEN;
  }

  send(event, data) {
    if (this.ws_?.readyState !== WebSocket.OPEN) return false;
    this.ws_.send(encoder.encode({ event, data }));
    return true;
  }

  close() {
    this.closed_ = true;
    clearTimeout(this.timer_);
    this.ws_?.close();
  }
}

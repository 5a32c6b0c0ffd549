// What every scripted agent of the tests and benchmarks needs from the agent API: logging in and
// calling it with the token, and waiting for something with a bound.
import WebSocket from 'ws';

// Logs in as `name`; `call(method, route, payload)` answers {status, body} for agent/1/ROUTE.
export async function agentLogin(base, license, name) {
  const login = await (
    await fetch(new URL('agent/1/login', base), {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify({ license, name }),
    })
  ).json();
  const call = async (method, route, payload) => {
    const r = await fetch(new URL(`agent/1/${route}`, base), {
      method,
      headers: { Authorization: `Bearer ${login.token}`, 'Content-Type': 'application/json' },
      body: payload === undefined ? undefined : JSON.stringify(payload),
    });
    return { status: r.status, body: await r.json() };
  };
  // The agent socket of a session, with the subprotocols a browser would send.
  const socket = (sessionId) =>
    new WebSocket(new URL(`agent/1/sessions/${sessionId}/ws`, base).href.replace(/^http/, 'ws'), ['quorvix-agent.1', `token.${login.token}`]);
  return { token: login.token, agent: login.agent, call, socket };
}

// `promise`, or a rejection naming `what` once `ms` have passed.
export function within(promise, what, ms) {
  let timer;
  return Promise.race([
    promise,
    new Promise((_, reject) => {
      timer = setTimeout(() => reject(new Error(`timed out waiting for ${what}`)), ms);
    }),
  ]).finally(() => clearTimeout(timer));
}

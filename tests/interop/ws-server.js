// A WebSocket peer for the interoperability tests, on Node's `ws`. Listens on 127.0.0.1 at a
// port of its own choosing and prints "PORT <n>". The first argument is a JSON object of server
// options (perMessageDeflate, autoPong). Binary messages are echoed; text messages starting with
// "cmd:" carry a JSON command, other text is echoed.
'use strict';
const { WebSocketServer } = require('ws');

const options = JSON.parse(process.argv[2] || '{}');
const server = new WebSocketServer({
  host: '127.0.0.1',
  port: 0,
  maxPayload: 64 * 1024 * 1024,
  perMessageDeflate: options.perMessageDeflate || false,
  autoPong: options.autoPong !== false,
});

function pattern(size) {
  const b = Buffer.alloc(size);
  for (let i = 0; i < size; i++) b[i] = i % 251;
  return b;
}

server.on('connection', (ws) => {
  ws.on('pong', (data) => ws.send('pong:' + data.toString()));
  ws.on('message', (data, isBinary) => {
    if (isBinary) return ws.send(data, { binary: true });
    const text = data.toString();
    if (!text.startsWith('cmd:')) return ws.send(text);
    const cmd = JSON.parse(text.slice(4));
    if (cmd.fragments) {
      const last = cmd.fragments.length - 1;
      cmd.fragments.forEach((part, i) =>
        ws.send(Buffer.from(part), { binary: !!cmd.binary, fin: i === last }));
    } else if (cmd.size !== undefined) {
      ws.send(pattern(cmd.size), { binary: true });
    } else if (cmd.close) {
      ws.close(cmd.close, cmd.reason || '');
    } else if (cmd.ping !== undefined) {
      ws.ping(cmd.ping);
    } else if (cmd.extensions) {
      ws.send('ext:' + Object.keys(ws._extensions || {}).join(',') + ':' +
              JSON.stringify((ws._extensions['permessage-deflate'] || {}).params || {}));
    }
  });
});

server.on('listening', () => console.log('PORT ' + server.address().port));
process.on('SIGTERM', () => process.exit(0));

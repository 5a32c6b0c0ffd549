#!/usr/bin/env node
// Starts the local service. The first line on standard output is always
// "devserver listening on <base address>"; everything else goes to standard error.
import os from 'node:os';
import path from 'node:path';
import { parseArgs } from 'node:util';
import { DevServer, defaults } from '../lib/server.js';

const usage = `usage: devserver.js [options]
  --host ADDR               address to bind (default ${defaults.host})
  --port N                  port, 0 for any free one (default ${defaults.port})
  --cert FILE --key FILE    serve HTTPS and WSS with this certificate and key
  --public-url URL          base address to advertise when it differs from the bound one
  --license KEY             accepted license (repeatable; default the development key)
  --state FILE              state file (default $XDG_STATE_HOME/quorvix-devserver/state.json)
  --pending-timeout S       seconds a session may wait for an agent (default ${defaults.pendingTimeout})
  --authorizing-timeout S   seconds a session may wait for consent (default ${defaults.authorizingTimeout})
  --next-registration S     re-registration interval given to devices (default ${defaults.nextRegistration})
  --no-consent              sessions do not require the user's consent
  --video-codecs LIST       comma-separated codecs sessions allow (default ${defaults.videoCodecs.join(',')})
  --scale X                 session scale (default ${defaults.scale})
  --log-level LEVEL         debug, info, warn, error or silent (default info)`;

function fail(message) {
  process.stderr.write(`devserver: ${message}\n${usage}\n`);
  process.exit(2);
}

let args;
try {
  ({ values: args } = parseArgs({
    options: {
      host: { type: 'string' },
      port: { type: 'string' },
      cert: { type: 'string' },
      key: { type: 'string' },
      'public-url': { type: 'string' },
      license: { type: 'string', multiple: true },
      state: { type: 'string' },
      'pending-timeout': { type: 'string' },
      'authorizing-timeout': { type: 'string' },
      'next-registration': { type: 'string' },
      'no-consent': { type: 'boolean' },
      'video-codecs': { type: 'string' },
      scale: { type: 'string' },
      'log-level': { type: 'string' },
      help: { type: 'boolean' },
    },
  }));
} catch (error) {
  fail(error.message);
}
if (args.help) {
  process.stdout.write(`${usage}\n`);
  process.exit(0);
}

function number(name, min) {
  if (args[name] === undefined) return undefined;
  const value = Number(args[name]);
  if (!Number.isFinite(value) || value < min) fail(`--${name} must be a number of at least ${min}`);
  return value;
}

if (!!args.cert !== !!args.key) fail('--cert and --key go together');
const port = number('port', 0);
if (port !== undefined && (!Number.isInteger(port) || port > 65535)) fail('--port must be 0 to 65535');
const stateHome = process.env.XDG_STATE_HOME || path.join(os.homedir(), '.local', 'state');
const options = {
  host: args.host,
  port,
  cert: args.cert,
  key: args.key,
  publicUrl: args['public-url'],
  licenses: args.license,
  stateFile: args.state ?? path.join(stateHome, 'quorvix-devserver', 'state.json'),
  pendingTimeout: number('pending-timeout', 0),
  authorizingTimeout: number('authorizing-timeout', 0),
  nextRegistration: number('next-registration', 0),
  requireConsent: args['no-consent'] ? false : undefined,
  videoCodecs: args['video-codecs']?.split(',').filter(Boolean),
  scale: number('scale', 0),
  logLevel: args['log-level'],
};
for (const key of Object.keys(options)) if (options[key] === undefined) delete options[key];

const server = new DevServer(options);
let base;
try {
  base = await server.start();
} catch (error) {
  process.stderr.write(`devserver: ${error.message}\n`);
  process.exit(1);
}
process.stdout.write(`devserver listening on ${base}\n`);
// License values stay out of every log; only where they came from is said.
const licenses = args.license
  ? `${args.license.length} from --license`
  : 'the development key (see README.md)';
process.stderr.write(
  `devserver: agent console at ${base}console/\n` +
    `devserver: accepting licenses: ${licenses}\n` +
    `devserver: state file ${options.stateFile}\n`,
);

let stopping = false;
for (const signal of ['SIGINT', 'SIGTERM']) {
  process.on(signal, async () => {
    if (stopping) return;
    stopping = true;
    await server.close();
    process.exit(0);
  });
}

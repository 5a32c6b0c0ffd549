#!/bin/sh
# Runs the service suite and the console suite (the latter skips when chromium is missing).
# Needs `npm install --no-save` in this folder first (scripts/install-deps does it).
set -eu
cd "$(dirname "$0")"
if [ ! -d node_modules/ws ] || [ ! -d node_modules/cbor-x ] || [ ! -d node_modules/puppeteer-core ]; then
  echo "tools/devserver: run 'npm install --no-save' in tools/devserver first" >&2
  exit 2
fi
exec node --test --test-concurrency=1 --test-timeout=120000 test/service.test.js test/console.test.js

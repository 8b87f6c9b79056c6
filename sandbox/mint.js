#!/usr/bin/env node
'use strict';
// Mints a transaction on a running sandbox and prints the answer.
// Usage: node sandbox/mint.js [--sandbox http://127.0.0.1:8800] [--auto] [--mode verify|playground|appToApp]
//                             [--fail] [--refuse-socket] [--action URL] [--out DIR]
// With --out it also writes DIR/push.json (the plain message), DIR/push-encrypted.json,
// DIR/key.txt and DIR/deeplink.txt. Exit 1 when the sandbox cannot be reached or refuses.
const fs = require('fs');
const path = require('path');
const { readArguments } = require('./lib/cli');

const USAGE = 'usage: node sandbox/mint.js [--sandbox URL] [--auto] [--mode M] [--fail] [--refuse-socket] [--action URL] [--out DIR]';

function writeFiles(directory, answer) {
  fs.mkdirSync(directory, { recursive: true });
  const write = (name, text) => fs.writeFileSync(path.join(directory, name), text);
  write('push.json', `${JSON.stringify(answer.push, null, 2)}\n`);
  write('push-encrypted.json', `${JSON.stringify(answer.pushEncrypted, null, 2)}\n`);
  write('key.txt', `${answer.encryptionKey}\n`);
  write('deeplink.txt', `${answer.deeplink}\n`);
}

async function main() {
  const settings = { sandbox: 'http://127.0.0.1:8800', out: null, options: {} };
  readArguments(USAGE, (word, value) => {
    if (word === '--sandbox') settings.sandbox = value().replace(/\/+$/, '');
    else if (word === '--auto') settings.options.auto = true;
    else if (word === '--mode') settings.options.mode = value();
    else if (word === '--fail') settings.options.fail = true;
    else if (word === '--refuse-socket') settings.options.refuseSocket = true;
    else if (word === '--action') settings.options.action = value();
    else if (word === '--out') settings.out = value();
    else return false;
    return true;
  });
  let response;
  try {
    response = await fetch(`${settings.sandbox}/api/transactions`, {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify(settings.options),
      signal: AbortSignal.timeout(10000),
    });
  } catch (error) {
    console.error(`cannot reach the sandbox at ${settings.sandbox}: ${error.cause ? error.cause.code || error.cause.message : error.message}`);
    process.exit(1);
  }
  const answer = await response.json().catch(() => ({}));
  if (response.status !== 201) {
    console.error(`the sandbox refused to mint (${response.status}): ${answer.error || 'no reason given'}`);
    process.exit(1);
  }
  if (settings.out) writeFiles(settings.out, answer);
  console.log(JSON.stringify(answer, null, 2));
}

main();

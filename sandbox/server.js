#!/usr/bin/env node
'use strict';
// The Kelvane sandbox: a local transaction backend for the demo host and the end-to-end tests.
// Usage: node sandbox/server.js [--host 127.0.0.1] [--port 8800] [--store-version V]
//                               [--lifetime SECONDS] [--quiet]
// The first line on standard output is "Kelvane sandbox listening on http://HOST:PORT"; every
// later line but the few that follow it logs a request or a socket event (--quiet drops those).
// It stops on SIGINT, SIGTERM or at the end of --lifetime, closing every socket and stream.
const { readArguments, wholeNumber } = require('./lib/cli');
const { createSandbox } = require('./lib/sandbox');

const USAGE = 'usage: node sandbox/server.js [--host 127.0.0.1] [--port 8800] [--store-version V] [--lifetime SECONDS] [--quiet]';

async function main() {
  const options = { host: '127.0.0.1', port: 8800, storeVersion: null, lifetime: null, quiet: false };
  readArguments(USAGE, (word, value) => {
    if (word === '--host') options.host = value();
    else if (word === '--port') options.port = wholeNumber(word, value(), 0, 65535);
    else if (word === '--store-version') options.storeVersion = value();
    else if (word === '--lifetime') options.lifetime = wholeNumber(word, value(), 1, 7 * 24 * 3600);
    else if (word === '--quiet') options.quiet = true;
    else return false;
    return true;
  });
  const sandbox = createSandbox(options);
  // Signals are heard from the start, so that a stop right after the first line is not lost.
  let stopping = false;
  const stop = (why) => {
    if (stopping) return;
    stopping = true;
    if (!options.quiet) console.log(`Kelvane sandbox stopping (${why})`);
    // Ends the process even if a peer holds a connection open against the close.
    setTimeout(() => process.exit(0), 3000).unref();
    sandbox.close().then(() => process.exit(0));
  };
  process.on('SIGINT', () => stop('SIGINT'));
  process.on('SIGTERM', () => stop('SIGTERM'));
  if (options.lifetime) setTimeout(() => stop('lifetime'), options.lifetime * 1000);

  let origin;
  try {
    origin = await sandbox.listen();
  } catch (error) {
    console.error(`Kelvane sandbox cannot listen on ${options.host}:${options.port}: ${error.message}`);
    process.exit(1);
  }
  console.log(`Kelvane sandbox listening on ${origin}`);
  console.log(`  dashboard:  ${origin}/`);
  console.log(`  mint:       POST ${origin}/api/transactions  {"auto":true,"mode":"verify"}`);
  console.log(`  or:         node sandbox/mint.js --sandbox ${origin} --auto`);
}

main();

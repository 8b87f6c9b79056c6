'use strict';
// Loads the page kit into a fresh script context, as a page would, with a stand-in for the
// host's script message handlers. Each post is kept in `posted`; the test answers through the
// context's own iosCallback.
const fs = require('fs');
const path = require('path');
const vm = require('vm');

const KIT = path.join(__dirname, '..', 'public', 'kelvane-bridge.js');
const source = fs.readFileSync(KIT, 'utf8');

function loadKit({ inHost = true, before = '' } = {}) {
  const posted = [];
  const context = { setTimeout, clearTimeout, Promise };
  context.window = context;
  vm.createContext(context);
  if (inHost) {
    // Every event name gets a handler, as the host registers all of them.
    context.webkit = {
      messageHandlers: new Proxy({}, {
        get: (target, name) => (typeof name === 'string' ? { postMessage: (body) => posted.push({ name, body }) } : undefined),
      }),
    };
  }
  if (before) vm.runInContext(before, context);
  vm.runInContext(source, context, { filename: 'kelvane-bridge.js' });
  const kit = context.KelvaneBridge;
  kit.posted = posted;
  kit.window = context;
  return kit;
}

module.exports = { loadKit };

'use strict';
// The page kit in a script context of its own, with a stand-in for the host's handlers.
const test = require('node:test');

// No test waits for ever: a stuck one fails.
const bounded = { timeout: 30000 };
const assert = require('node:assert/strict');
const crypto = require('crypto');
const { loadKit } = require('../tools/kit');
const { describe } = require('../tools/contract');

const rejection = (promise) => promise.then(() => assert.fail('resolved'), (error) => error);
// Values made inside the kit's context have that context's prototypes.
const plain = (value) => JSON.parse(JSON.stringify(value));

test('answers settle the oldest pending call of their name, and an earlier iosCallback still runs', bounded, async () => {
  const kit = loadKit({ before: 'var seen = []; window.iosCallback = function (name) { seen.push(name); };' });
  const first = kit.copyToClipboard({ text: 'a' });
  const second = kit.call('copyToClipboard', { text: 'b' });
  const other = kit.getCurrentNetwork();
  assert.deepEqual(kit.posted.map((post) => post.name), ['copyToClipboard', 'copyToClipboard', 'getCurrentNetwork']);
  assert.deepEqual(plain(kit.posted[2].body), {}, 'an ignored body is posted as an empty object');
  kit.window.iosCallback('getCurrentNetwork', { connectivity: 'wifi' });
  kit.window.iosCallback('copyToClipboard', { n: 1 });
  kit.window.iosCallback('copyToClipboard', { n: 2 });
  kit.window.iosCallback('copyToClipboard', { n: 3 });
  assert.deepEqual(await first, { n: 1 });
  assert.deepEqual(await second, { n: 2 });
  assert.deepEqual(await other, { connectivity: 'wifi' });
  assert.deepEqual([...kit.window.seen], ['getCurrentNetwork', 'copyToClipboard', 'copyToClipboard', 'copyToClipboard']);

  // The two ends of a transaction resolve once posted: the host never answers them.
  assert.equal(await kit.success(), undefined);
  assert.equal(await kit.failure({ ignored: true }), undefined);
  assert.deepEqual(kit.posted.slice(-2).map((post) => post.name), ['success', 'failure']);
});

test('a call times out by its own bound or the default, and a late answer goes to the next call', bounded, async () => {
  const kit = loadKit();
  kit.defaultTimeout = 20;
  const timedOut = await rejection(kit.checkBiometric());
  assert.equal(timedOut.code, 'timeout');
  assert.ok(timedOut instanceof kit.KelvaneBridgeError && timedOut.name === 'KelvaneBridgeError');
  assert.match(timedOut.message, /^checkBiometric: no answer from the host within 20 ms$/);

  const waiting = kit.checkBiometric(undefined, { timeout: 0 });
  const quick = rejection(kit.isJsFidoSupported({}, { timeout: 5 }));
  assert.equal((await quick).code, 'timeout');
  kit.window.iosCallback('checkBiometric', { late: true });
  assert.deepEqual(await waiting, { late: true });
});

test('outside a host, with an unknown name or a body the host cannot take, calls are refused in the page', bounded, async () => {
  const outside = loadKit({ inHost: false });
  const notInHost = await rejection(outside.registerSilentBinding(outside.samples.registerSilentBinding));
  assert.equal(notInHost.code, 'notInHost');
  assert.match(notInHost.message, /window\.webkit\.messageHandlers\.registerSilentBinding is missing.*Open it through the host app/);
  assert.equal(outside.isInHost(), false);
  assert.equal((await rejection(outside.success())).code, 'notInHost');

  const kit = loadKit();
  assert.equal(kit.isInHost(), true);
  const unknown = await rejection(kit.call('registerfido', {}));
  assert.equal(unknown.code, 'unknownEvent');
  assert.equal(kit.posted.length, 0);

  kit.window.webkit.messageHandlers = { copyToClipboard: { postMessage: () => { throw new Error('DataCloneError'); } } };
  const uncloneable = await rejection(kit.copyToClipboard({ text: 'x' }, { timeout: 0 }));
  assert.equal(uncloneable.code, 'invalidBody');
  assert.match(uncloneable.message, /copyToClipboard: the host could not take the body \(DataCloneError\)/);
});

test('the contract refuses every broken sample with the event and field named, and lets every sample through', bounded, () => {
  const kit = loadKit();
  const { events } = describe();
  assert.deepEqual(events.map((entry) => entry.name), plain(kit.events));
  assert.equal(events.length, 21);
  assert.equal(events.filter((entry) => entry.answers).length, 19);
  for (const entry of events) {
    assert.equal(entry.sampleError, null, entry.name);
    for (const violation of entry.violations) {
      assert.ok(violation.kitError && violation.kitError.startsWith(`${entry.name}: body`), `${entry.name} ${violation.path}`);
      if (violation.path) assert.ok(violation.kitError.includes(`body.${violation.path}`), violation.kitError);
    }
  }
  const message = (name, body) => kit.check(name, body).message;
  assert.equal(message('registerSilentBinding', {}), 'registerSilentBinding: body.remotePublicKey must be a string (it is missing)');
  assert.equal(message('registerSilentBinding', { remotePublicKey: null }), 'registerSilentBinding: body.remotePublicKey must be a string (it is null)');
  assert.equal(message('copyToClipboard', ['text']), 'copyToClipboard: body must be an object (it is an array)');
  assert.equal(message('registerFido', { params: { publicKey: [] } }), 'registerFido: body.params.publicKey must be an object (it is an array)');
  const signBody = JSON.parse(JSON.stringify(kit.samples.signFido));
  signBody.params.publicKey.allowCredentials.push('id');
  assert.equal(message('signFido', signBody), 'signFido: body.params.publicKey.allowCredentials[1] must be an object (it is a string)');
  assert.equal(kit.check('signFido', signBody).field, 'params.publicKey.allowCredentials[1]');
});

test('the key and address formats match what the host can open', bounded, () => {
  const kit = loadKit();
  const keyOk = (key) => kit.check('registerSilentBinding', { remotePublicKey: key }) === null;
  const rsa = (bits) => crypto.generateKeyPairSync('rsa', { modulusLength: bits }).publicKey;
  const key = rsa(2048);
  assert.ok(keyOk(key.export({ type: 'pkcs1', format: 'der' }).toString('base64')));
  assert.ok(keyOk(rsa(1024).export({ type: 'pkcs1', format: 'der' }).toString('base64')));
  assert.ok(!keyOk(rsa(768).export({ type: 'pkcs1', format: 'der' }).toString('base64')), 'too small for the sealed value');
  assert.ok(!keyOk(key.export({ type: 'spki', format: 'der' }).toString('base64')), 'SubjectPublicKeyInfo');
  assert.ok(!keyOk(key.export({ type: 'pkcs1', format: 'pem' })), 'PEM');
  const der = key.export({ type: 'pkcs1', format: 'der' });
  assert.ok(!keyOk(Buffer.concat([der, Buffer.from([0])]).toString('base64')), 'trailing bytes');
  assert.ok(!keyOk(der.toString('base64').slice(0, -4)), 'cut short');
  assert.ok(!keyOk(der.toString('base64').slice(0, -1)), 'not whole groups of four');

  const urlOk = (url) => kit.check('registerIproov', { streamingUrl: url, token: 't' }) === null;
  for (const url of ['wss://face.test/ws', 'https://a.test/x?y=1#z', 'urn:example:1']) assert.ok(urlOk(url), url);
  for (const url of ['not a url', 'face.test/ws', 'https://a.test/%zz', 'https://a.test/#a#b', '']) assert.ok(!urlOk(url), url);
});

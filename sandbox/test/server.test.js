'use strict';
// The sandbox's HTTP side, in this process on a free port of 127.0.0.1.
const test = require('node:test');

// No test waits for ever: a stuck one fails.
const bounded = { timeout: 30000 };
const assert = require('node:assert/strict');
const crypto = require('crypto');
const path = require('path');
const { spawn, execFile } = require('child_process');
const fs = require('fs');
const os = require('os');
const { createSandbox } = require('../lib/sandbox');

let sandbox;
let origin;

test.before(async () => {
  sandbox = createSandbox({ port: 0, quiet: true });
  origin = await sandbox.listen();
});
test.after(() => sandbox.close());

async function call(method, where, body, headers = {}) {
  const response = await fetch(origin + where, {
    method, headers: { 'Content-Type': 'application/json', ...headers },
    body: body === undefined ? undefined : typeof body === 'string' ? body : JSON.stringify(body),
  });
  const text = await response.text();
  let json = null;
  try {
    json = JSON.parse(text);
  } catch {
    // A page.
  }
  return { status: response.status, json, text };
}

const mint = async (options = {}) => (await call('POST', '/api/transactions', options)).json;
const record = async (id) => (await call('GET', `/api/transactions/${id}`)).json;

// The transaction settings that the page carries.
async function pageConfig(where) {
  const { text } = await call('GET', where);
  return JSON.parse(text.match(/<script type="application\/json" id="page-config">(.*?)<\/script>/s)[1]);
}

test('minting: options are checked by name, and the sealed push opens with its unpadded key', bounded, async () => {
  for (const [body, named] of [[{ colour: 'red' }, 'colour'], [{ auto: 'yes' }, 'auto'], [{ mode: 'scan' }, 'mode'],
    [{ action: 'ftp://x' }, 'action'], [{ refuseSocket: 1 }, 'refuseSocket'], [[1], 'object'], ['{"auto":', 'JSON']]) {
    const { status, json } = await call('POST', '/api/transactions', body);
    assert.equal(status, 400, JSON.stringify(body));
    assert.ok(json.error.includes(named), json.error);
  }

  const minted = await mint({ auto: true });
  assert.match(minted.id, /^tx_[0-9a-f]{16}$/);
  assert.deepEqual(minted.transaction, {
    action: `${origin}/verify/${minted.id}?auto=1`, socket: { url: origin, requestId: minted.requestId }, type: 'verification' });
  assert.deepEqual(JSON.parse(minted.push.payload), { version: 1, id: 'kn_auth', isEncrypted: 0, data: minted.transaction });
  assert.equal(minted.dashboard, `${origin}/#${minted.id}`);

  const sealed = JSON.parse(minted.pushEncrypted.payload);
  assert.equal(sealed.isEncrypted, 1);
  assert.equal(minted.encryptionKey.length, 43, 'a 32-byte key without its padding');
  const decipher = crypto.createDecipheriv('aes-256-ecb', Buffer.from(`${minted.encryptionKey}=`, 'base64'), null);
  const opened = Buffer.concat([decipher.update(sealed.data, 'base64'), decipher.final()]).toString('utf8');
  assert.deepEqual(JSON.parse(opened), minted.transaction);

  const link = new URL(minted.deeplink);
  assert.equal(link.searchParams.get('base_url'), `${origin}/payload`);
  assert.equal(link.searchParams.get('id'), minted.id);
  assert.equal(link.searchParams.get('realm_id'), 'sandbox');

  const other = await mint({ action: 'http://127.0.0.1:9/closed', mode: 'appToApp', refuseSocket: true });
  assert.equal(other.transaction.action, 'http://127.0.0.1:9/closed');
  assert.deepEqual((await record(other.id)).options, { auto: false, mode: 'appToApp', fail: false, refuseSocket: true, action: 'http://127.0.0.1:9/closed' });
  const listed = (await call('GET', '/api/transactions')).json.map((entry) => entry.id);
  assert.ok(listed.includes(minted.id) && listed.includes(other.id));
});

test('status report: recorded by name with a time, and refused for an unknown key or another body', bounded, async () => {
  const { id, requestId } = await mint();
  assert.equal((await call('POST', '/status?key=req_unknown', { status: '201' })).status, 404);
  for (const body of ['', 'not json', { status: 201 }, { status: '20x' }, { status: '201', extra: 1 }, ['201']]) {
    const { status, json } = await call('POST', `/status?key=${requestId}`, body);
    assert.equal(status, 400, JSON.stringify(body));
    assert.match(json.error, /\{"status":"<digits>"\}/);
  }
  for (const status of ['201', '200', '403', '299']) {
    assert.deepEqual(await call('POST', `/status?key=${requestId}`, { status }), { status: 200, json: {}, text: '{}' });
  }
  const statuses = (await record(id)).statuses;
  assert.deepEqual(statuses.map((entry) => entry.name), ['started', 'completed', 'userClosed', 'unknown']);
  assert.ok(statuses.every((entry) => !Number.isNaN(Date.parse(entry.at))));
});

test('payload by id: the action token, the realm and the id decide; the answer is the plain payload', bounded, async () => {
  const minted = await mint();
  const token = new URL(minted.deeplink).searchParams.get('action_token');
  const bearer = { Authorization: `Bearer ${token}` };
  assert.equal((await call('GET', '/payload/tx_unknown/sandbox', undefined, bearer)).status, 404);
  assert.equal((await call('GET', `/payload/${minted.id}/elsewhere`, undefined, bearer)).status, 404);
  assert.equal((await call('GET', `/payload/${minted.id}/sandbox`)).status, 401);
  assert.equal((await call('GET', `/payload/${minted.id}/sandbox`, undefined, { Authorization: token })).status, 401);
  const { status, json } = await call('GET', `/payload/${minted.id}/sandbox`, undefined, bearer);
  assert.equal(status, 200);
  assert.deepEqual(json, JSON.parse(minted.push.payload));
});

test('Sekura session and store lookup', bounded, async () => {
  const { id } = await mint();
  assert.equal((await call('GET', '/sekura/session?tx=tx_unknown')).status, 404);
  assert.equal((await call('GET', '/sekura/session')).status, 404);
  assert.deepEqual((await call('GET', `/sekura/session?tx=${id}`)).json, { session: `sekura-${id}-1`, tx: id });
  assert.equal((await record(id)).sekuraLoads, 1);

  assert.deepEqual((await call('GET', '/lookup?bundleId=com.example.host')).json, { resultCount: 0, results: [] });
  assert.equal((await call('GET', '/lookup')).status, 400);
  for (const body of [{}, { version: 2 }, 'null']) assert.equal((await call('POST', '/api/store', body)).status, 400);
  assert.deepEqual((await call('POST', '/api/store', { version: '1.2.0' })).json, { version: '1.2.0' });
  assert.deepEqual((await call('GET', '/lookup?bundleId=com.example.host')).json,
                   { resultCount: 1, results: [{ version: '1.2.0', trackId: 1234567890, bundleId: 'com.example.host' }] });
  await call('POST', '/api/store', { version: null });
  assert.equal((await call('GET', '/lookup?bundleId=x')).json.resultCount, 0);
});

test('the page: its settings per mode, its loads, its steps, the binding verdict and the outcome', bounded, async () => {
  const plain = await mint({ mode: 'appToApp' });
  const config = await pageConfig(`/verify/${plain.id}?auto=1`);
  assert.equal(config.mode, 'appToApp');
  assert.equal(config.sekuraUrl, `${origin}/sekura/session?tx=${plain.id}`);
  const handoff = new URL(config.handoffUrl);
  assert.equal(handoff.protocol, 'uaepass:');
  assert.equal(handoff.searchParams.get('successurl'), `${origin}/verify/${plain.id}/return?state=success`);
  assert.equal(handoff.searchParams.get('failureurl'), `${origin}/verify/${plain.id}/return?state=failure`);
  assert.equal((await call('GET', `/verify/${plain.id}/return?state=maybe`)).status, 400);

  // The device's side of silent binding, as the library computes it.
  const secret = crypto.createHash('sha256').update('0F6C4E52-5D1B-4C34-9C55-7E1E4F0E2A11').digest();
  const publicKey = crypto.createPublicKey({ key: Buffer.from(config.binding.remotePublicKey, 'base64'), format: 'der', type: 'pkcs1' });
  const answers = {
    encryptedDeviceId: crypto.publicEncrypt({ key: publicKey, padding: crypto.constants.RSA_PKCS1_OAEP_PADDING, oaepHash: 'sha1' },
                                           Buffer.from(secret.toString('base64'))).toString('base64'),
    challengeHash: crypto.createHash('sha256').update(Buffer.concat([Buffer.from(config.binding.challenge, 'base64'), secret])).digest('base64'),
    keyHashFirst6: secret.subarray(0, 6).toString('base64'),
  };
  const binding = `/api/transactions/${plain.id}/binding`;
  assert.equal((await call('POST', binding, { challengeHash: 'x' })).status, 400);
  assert.deepEqual((await call('POST', binding, { ...answers, keyHashFirst6: 'AAAAAAAA' })).json,
                   { verified: false, checks: { decrypted: true, challengeHash: true, keyHashFirst6: false }, reason: 'failed: keyHashFirst6' });
  assert.equal((await call('POST', binding, answers)).json.verified, true);

  assert.equal((await call('POST', `/api/transactions/${plain.id}/steps`, { steps: ['x'] })).status, 400);
  const steps = [{ event: 'isEventSupported', status: 'passed' }, { title: 'App-to-app hand-off', status: 'running' }];
  assert.equal((await call('POST', `/api/transactions/${plain.id}/steps`, { steps })).status, 200);
  const back = await pageConfig(`/verify/${plain.id}/return?state=success`);
  assert.equal(back.returned, 'success');
  assert.deepEqual(back.steps, steps);

  for (const body of [{}, { outcome: 'maybe' }, { outcome: 'failure', steps: {} }]) {
    assert.equal((await call('POST', `/api/transactions/${plain.id}/outcome`, body)).status, 400, JSON.stringify(body));
  }
  const unheard = await call('POST', `/api/transactions/${plain.id}/outcome`, { outcome: 'success' });
  assert.equal(unheard.status, 409, 'no status socket to tell the result on');
  assert.deepEqual((await call('POST', `/api/transactions/${plain.id}/outcome`, { outcome: 'failure', steps })).json,
                   { outcome: 'failure', emitted: false });
  assert.equal((await call('POST', `/api/transactions/${plain.id}/outcome`, { outcome: 'failure' })).status, 409);

  const seen = await record(plain.id);
  assert.equal(seen.pageLoads, 1);
  assert.equal(seen.returnLoads, 1);
  assert.equal(seen.binding.verified, true);
  assert.equal(seen.outcome.outcome, 'failure');
  assert.equal(seen.resultEmitted, false);

  const failing = await mint({ fail: true });
  assert.equal((await pageConfig(`/verify/${failing.id}`)).sekuraUrl, `${origin}/sekura/session?tx=tx_unknown`);
});

test('anything else: a JSON 4xx, the dashboard and its live feed', bounded, async () => {
  assert.equal((await call('GET', '/verify/tx_unknown')).status, 404);
  assert.deepEqual(await call('GET', '/nowhere'), { status: 404, json: { error: 'nothing at /nowhere' }, text: '{"error":"nothing at /nowhere"}' });
  assert.equal((await call('DELETE', '/api/transactions')).status, 405);
  assert.equal((await call('GET', '/verify/%E0%A4%A')).status, 400);
  assert.equal((await call('POST', '/api/transactions', 'x'.repeat(70 * 1024))).status, 413);
  assert.match((await call('GET', '/')).text, /<title>Kelvane sandbox · dashboard<\/title>/);
  assert.match((await call('GET', '/kelvane-bridge.js')).text, /KelvaneBridge/);

  const feed = new AbortController();
  const response = await fetch(`${origin}/api/events`, { signal: feed.signal });
  assert.equal(response.headers.get('content-type'), 'text/event-stream');
  const reader = response.body.getReader();
  const { id } = await mint();
  let text = '';
  while (!text.includes(`"id":"${id}"`) || !text.includes('event: log')) text += Buffer.from((await reader.read()).value).toString();
  assert.match(text, /event: transaction\ndata: \{"id":"tx_/);
  feed.abort();
  const logged = (await call('GET', '/api/log')).json;
  assert.ok(logged.some((entry) => entry.method === 'POST' && entry.path === '/api/transactions' && entry.status === 201));
  assert.ok(!logged.some((entry) => entry.path === '/api/log'), 'the dashboard\'s own reads stay out of the log');
});

function runNode(args) {
  return new Promise((resolve) => {
    execFile(process.execPath, args, { timeout: 20000 }, (error, stdout, stderr) => resolve({ code: error ? error.code : 0, stdout, stderr }));
  });
}

test('the commands: mint.js writes its files or says why not; the server announces itself and stops by itself', bounded, async () => {
  const out = fs.mkdtempSync(path.join(os.tmpdir(), 'kelvane-mint-'));
  const minted = await runNode([path.join(__dirname, '..', 'mint.js'), '--sandbox', origin, '--mode', 'playground', '--auto', '--out', out]);
  assert.equal(minted.code, 0, minted.stderr);
  const answer = JSON.parse(minted.stdout);
  assert.equal((await record(answer.id)).options.mode, 'playground');
  assert.deepEqual(JSON.parse(fs.readFileSync(path.join(out, 'push.json'), 'utf8')), answer.push);
  assert.deepEqual(JSON.parse(fs.readFileSync(path.join(out, 'push-encrypted.json'), 'utf8')), answer.pushEncrypted);
  assert.equal(fs.readFileSync(path.join(out, 'key.txt'), 'utf8'), `${answer.encryptionKey}\n`);
  assert.equal(fs.readFileSync(path.join(out, 'deeplink.txt'), 'utf8'), `${answer.deeplink}\n`);
  fs.rmSync(out, { recursive: true });

  const refused = await runNode([path.join(__dirname, '..', 'mint.js'), '--sandbox', origin, '--mode', 'scan']);
  assert.equal(refused.code, 1);
  assert.match(refused.stderr, /refused to mint \(400\): option "mode"/);
  const unreachable = await runNode([path.join(__dirname, '..', 'mint.js'), '--sandbox', 'http://127.0.0.1:9']);
  assert.equal(unreachable.code, 1);
  assert.equal(unreachable.stderr.trim().split('\n').length, 1);
  assert.equal((await runNode([path.join(__dirname, '..', 'mint.js'), '--colour'])).code, 2);
  assert.equal((await runNode([path.join(__dirname, '..', 'server.js'), '--port', 'x'])).code, 2);

  const server = spawn(process.execPath, [path.join(__dirname, '..', 'server.js'), '--port', '0', '--lifetime', '1']);
  let printed = '';
  server.stdout.on('data', (chunk) => { printed += chunk; });
  const code = await new Promise((resolve) => server.on('exit', resolve));
  assert.equal(code, 0);
  assert.match(printed.split('\n')[0], /^Kelvane sandbox listening on http:\/\/127\.0\.0\.1:\d+$/);

  const stopped = spawn(process.execPath, [path.join(__dirname, '..', 'server.js'), '--port', '0', '--lifetime', '60']);
  await new Promise((resolve) => stopped.stdout.once('data', resolve));
  stopped.kill('SIGTERM');
  assert.equal(await new Promise((resolve) => stopped.on('exit', resolve)), 0);
});

test('checks of the device: the biometric challenge, the relying party\'s order and refusals, the QR code', bounded, async () => {
  const minted = await mint();
  const config = await pageConfig(`/verify/${minted.id}`);
  const api = `/api/transactions/${minted.id}`;

  const publicKey = crypto.createPublicKey({ key: Buffer.from(config.biometric.publicKey, 'base64'), format: 'der', type: 'pkcs1' });
  const seal = (base64) => crypto.publicEncrypt({ key: publicKey, padding: crypto.constants.RSA_PKCS1_OAEP_PADDING, oaepHash: 'sha1' },
                                                Buffer.from(base64, 'base64')).toString('base64');
  const credentialId = config.biometric.credentialId;
  assert.equal((await call('POST', `${api}/biometric`, { credentialId })).status, 400);
  assert.equal((await call('POST', `${api}/biometric`, { encryptedChallenge: seal('AAAA'), credentialId })).json.verified, false);
  assert.equal((await call('POST', `${api}/biometric`, { encryptedChallenge: seal(config.biometric.challenge), credentialId: 'bio_x' }))
    .json.verified, false);
  assert.deepEqual((await call('POST', `${api}/biometric`, { encryptedChallenge: seal(config.biometric.challenge), credentialId })).json,
                   { verified: true, reason: null });

  // Options before anything to verify, and a verification refused with the library's reason.
  assert.equal((await call('POST', `${api}/fido/registration`, { id: 'x', response: {} })).status, 409);
  assert.equal((await call('POST', `${api}/fido/authentication/options`, {})).status, 409);
  const options = (await call('POST', `${api}/fido/registration/options`, {})).json;
  assert.equal(options.rp.id, 'sandbox.kelvane.test');
  assert.deepEqual(options.pubKeyCredParams, [{ alg: -7, type: 'public-key' }]);
  assert.equal((await call('POST', `${api}/fido/registration`, [])).status, 400);
  const refused = (await call('POST', `${api}/fido/registration`, { id: 'AQ', rawId: 'AQ', type: 'public-key',
    response: { clientDataJSON: 'e30', attestationObject: 'oA' } })).json;
  assert.equal(refused.verified, false);
  assert.ok(refused.reason.length > 0);
  assert.deepEqual((await record(minted.id)).fido.registration.verified, false);

  const png = await fetch(`${origin}${api}/qr.png?encrypted=1`);
  assert.equal(png.headers.get('content-type'), 'image/png');
  assert.deepEqual([...new Uint8Array(await png.arrayBuffer()).subarray(0, 4)], [0x89, 0x50, 0x4e, 0x47]);
});

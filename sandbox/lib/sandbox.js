'use strict';
// The sandbox backend: what the library calls (status report, payload, Sekura page, store
// lookup, status socket), what the page calls (its checks, its report), and the dashboard's API.
const fs = require('fs');
const http = require('http');
const path = require('path');
const { Server } = require('socket.io');

const { execFile } = require('child_process');

const { verifyBinding, verifyBiometric } = require('./crypto');
const { RelyingParty } = require('./relyingParty');
const { Hub } = require('./hub');
const { HttpError, readBody, parseJson, isObject, send } = require('./http');
const { Transactions, STATUS_NAMES, REALM } = require('./transactions');
const { renderPage } = require('./pages');

const PUBLIC = path.join(__dirname, '..', 'public');
const STATIC = {
  '/kelvane-bridge.js': 'text/javascript; charset=utf-8',
  '/verify.js': 'text/javascript; charset=utf-8',
  '/dashboard.js': 'text/javascript; charset=utf-8',
  '/style.css': 'text/css; charset=utf-8',
};

function stringsIn(body, names) {
  if (!isObject(body)) throw new HttpError(400, 'the body must be a JSON object');
  for (const name of names) {
    if (typeof body[name] !== 'string') throw new HttpError(400, `"${name}" must be a string`);
  }
  return body;
}

function stepsIn(body) {
  const steps = body.steps === undefined ? [] : body.steps;
  if (!Array.isArray(steps) || !steps.every(isObject)) throw new HttpError(400, '"steps" must be a list of objects');
  return steps;
}

function createSandbox({ host = '127.0.0.1', port = 8800, storeVersion = null, quiet = false } = {}) {
  const hub = new Hub({ quiet });
  const relyingParty = new RelyingParty();
  const transactions = new Transactions((record) => hub.send('transaction', record));
  const state = { storeVersion, origin: null };

  // [method, path pattern, handler, logged]. A handler takes (request, response, ...path parts) and
  // returns [status, JSON body], or answers by itself.
  const routes = [
    ['POST', /^\/status$/, reportStatus, true],
    ['GET', /^\/payload\/([^/]+)\/([^/]+)$/, payload, true],
    ['GET', /^\/sekura\/session$/, sekura, true],
    ['GET', /^\/lookup$/, lookup, true],
    ['GET', /^\/$/, (request, response) => sendFile(response, 'dashboard.html', 'text/html; charset=utf-8'), false],
    ['GET', /^\/verify\/([^/]+)$/, verifyPage, true],
    ['GET', /^\/verify\/([^/]+)\/return$/, returnPage, true],
    ['POST', /^\/api\/transactions$/, mint, true],
    ['GET', /^\/api\/transactions$/, () => [200, transactions.list()], false],
    ['GET', /^\/api\/transactions\/([^/]+)$/, (request, response, id) => [200, transactions.get(id)], false],
    // The page saves its progress after each step; the dashboard shows it, the log does not.
    ['POST', /^\/api\/transactions\/([^/]+)\/steps$/, saveSteps, false],
    ['POST', /^\/api\/transactions\/([^/]+)\/binding$/, checkBinding, true],
    ['POST', /^\/api\/transactions\/([^/]+)\/biometric$/, checkBiometric, true],
    ['POST', /^\/api\/transactions\/([^/]+)\/fido\/registration\/options$/, fidoStep('registrationOptions'), true],
    ['POST', /^\/api\/transactions\/([^/]+)\/fido\/registration$/, fidoStep('verifyRegistration'), true],
    ['POST', /^\/api\/transactions\/([^/]+)\/fido\/authentication\/options$/, fidoStep('authenticationOptions'), true],
    ['POST', /^\/api\/transactions\/([^/]+)\/fido\/authentication$/, fidoStep('verifyAuthentication'), true],
    ['GET', /^\/api\/transactions\/([^/]+)\/qr\.png$/, qrCode, true],
    ['POST', /^\/api\/transactions\/([^/]+)\/outcome$/, reportOutcome, true],
    ['GET', /^\/api\/log$/, () => [200, hub.entries], false],
    ['GET', /^\/api\/events$/, (request, response) => hub.open(response), false],
    ['GET', /^\/api\/store$/, () => [200, { version: state.storeVersion }], false],
    ['POST', /^\/api\/store$/, setStore, true],
  ];

  function reportStatus(request) {
    const record = transactions.byRequestId(request.query.get('key') || '');
    if (!record) throw new HttpError(404, `no transaction with the request id "${request.query.get('key') || ''}"`);
    let body = null;
    try {
      body = JSON.parse(request.body);
    } catch {
      // Refused below like any other body.
    }
    if (!isObject(body) || Object.keys(body).length !== 1 || typeof body.status !== 'string' || !/^\d+$/.test(body.status)) {
      throw new HttpError(400, 'the body must be {"status":"<digits>"}');
    }
    record.statuses.push({ status: body.status, name: STATUS_NAMES[body.status] || 'unknown', at: new Date().toISOString() });
    transactions.changed(record);
    return [200, {}];
  }

  function payload(request, response, id, realm) {
    const record = transactions.get(id);
    if (realm !== REALM) throw new HttpError(404, `no realm "${realm}"; the sandbox's realm is "${REALM}"`);
    if (request.headers.authorization !== `Bearer ${record.secret.actionToken}`) {
      throw new HttpError(401, 'the Authorization header must be "Bearer <the deep link\'s action_token>"');
    }
    return [200, record.secret.payload];
  }

  function sekura(request) {
    const record = transactions.get(request.query.get('tx') || '');
    record.sekuraLoads += 1;
    transactions.changed(record);
    return [200, { session: `sekura-${record.id}-${record.sekuraLoads}`, tx: record.id }];
  }

  function lookup(request) {
    const bundleId = request.query.get('bundleId');
    if (!bundleId) throw new HttpError(400, 'the query must name a bundleId');
    if (state.storeVersion === null) return [200, { resultCount: 0, results: [] }];
    return [200, { resultCount: 1, results: [{ version: state.storeVersion, trackId: 1234567890, bundleId }] }];
  }

  function setStore(request) {
    const body = parseJson(request.body, null);
    if (!isObject(body) || !('version' in body) || !(body.version === null || typeof body.version === 'string')) {
      throw new HttpError(400, 'the body must be {"version":"<text>"} or {"version":null}');
    }
    state.storeVersion = body.version;
    hub.send('store', { version: state.storeVersion });
    return [200, { version: state.storeVersion }];
  }

  function mint(request) {
    return [201, transactions.mint(parseJson(request.body, {}), state.origin)];
  }

  async function pageConfig(record, returned) {
    const { options } = record;
    const keys = await transactions.keys(record);
    const config = {
      id: record.id,
      mode: options.mode,
      fail: options.fail,
      steps: returned ? record.steps : [],
      outcome: record.outcome,
      returned: returned || null,
      binding: { remotePublicKey: keys.publicKey, challenge: record.secret.challenge },
      biometric: { publicKey: keys.publicKey, credentialId: `bio_${record.id}`, challenge: record.secret.biometricChallenge },
      // No face service runs here: a real session would fail against it, a scripted one streams nothing.
      face: { streamingUrl: `wss://face.${relyingParty.rpID}/ws`, token: record.secret.faceToken },
      // A failing run asks for the page of a transaction that does not exist: 404, visibly.
      sekuraUrl: `${state.origin}/sekura/session?tx=${options.fail ? 'tx_unknown' : record.id}`,
    };
    if (options.mode === 'appToApp') {
      const back = (result) => encodeURIComponent(`${state.origin}/verify/${record.id}/return?state=${result}`);
      config.handoffUrl = `uaepass://sandbox/handoff?successurl=${back('success')}&failureurl=${back('failure')}`;
    }
    return config;
  }

  async function verifyPage(request, response, id) {
    const record = transactions.get(id);
    record.pageLoads += 1;
    transactions.changed(record);
    send(response, 200, renderPage(await pageConfig(record, null)), 'text/html; charset=utf-8');
  }

  async function returnPage(request, response, id) {
    const record = transactions.get(id);
    const result = request.query.get('state');
    if (result !== 'success' && result !== 'failure') throw new HttpError(400, 'the query must hold state=success or state=failure');
    record.returnLoads += 1;
    transactions.changed(record);
    send(response, 200, renderPage(await pageConfig(record, result)), 'text/html; charset=utf-8');
  }

  function saveSteps(request, response, id) {
    const record = transactions.get(id);
    record.steps = stepsIn(parseJson(request.body, {}));
    transactions.changed(record);
    return [200, {}];
  }

  async function checkBinding(request, response, id) {
    const record = transactions.get(id);
    const body = stringsIn(parseJson(request.body, null), ['encryptedDeviceId', 'challengeHash', 'keyHashFirst6']);
    const { privateKey } = await transactions.keys(record);
    const verdict = verifyBinding({ privateKey, challenge: record.secret.challenge, ...body });
    record.binding = { ...verdict, at: new Date().toISOString() };
    transactions.changed(record);
    return [200, verdict];
  }

  async function checkBiometric(request, response, id) {
    const record = transactions.get(id);
    const body = stringsIn(parseJson(request.body, null), ['encryptedChallenge', 'credentialId']);
    const { privateKey } = await transactions.keys(record);
    const verdict = body.credentialId === `bio_${record.id}`
      ? verifyBiometric({ privateKey, challenge: record.secret.biometricChallenge, encryptedChallenge: body.encryptedChallenge })
      : { verified: false, reason: `credentialId "${body.credentialId}" is not this transaction's` };
    record.biometric = { ...verdict, at: new Date().toISOString() };
    transactions.changed(record);
    return [200, verdict];
  }

  // Options go out as WebAuthn JSON; a verification takes the "data" of the host's answer.
  function fidoStep(operation) {
    return async (request, response, id) => {
      const record = transactions.get(id);
      const answer = await relyingParty[operation](record, parseJson(request.body, null));
      transactions.changed(record);
      return [200, answer];
    };
  }

  // The transaction's push message as a QR code, for a host's scanner: the encrypted one with
  // ?encrypted=1 (its key is in the mint answer). Made by the qrencode program.
  function qrCode(request, response, id) {
    const record = transactions.get(id);
    const message = request.query.get('encrypted') === '1' ? record.secret.encryptedPayload : record.secret.payload;
    return new Promise((resolve, reject) => {
      execFile('qrencode', ['-t', 'PNG', '-s', '6', '-o', '-', JSON.stringify(message)],
               { encoding: 'buffer', maxBuffer: 1 << 20 }, (error, png) => {
        if (error) {
          return reject(error.code === 'ENOENT' ? new HttpError(501, 'the qrencode program is not installed') : error);
        }
        send(response, 200, png, 'image/png');
        resolve();
      });
    });
  }

  function reportOutcome(request, response, id) {
    const record = transactions.get(id);
    const body = parseJson(request.body, null);
    if (!isObject(body) || (body.outcome !== 'success' && body.outcome !== 'failure')) {
      throw new HttpError(400, '"outcome" must be "success" or "failure"');
    }
    const steps = stepsIn(body);
    if (record.outcome) throw new HttpError(409, `the outcome was already reported: ${record.outcome.outcome}`);
    const answer = { outcome: body.outcome, emitted: false };
    if (body.outcome === 'success') {
      const connected = io.sockets.adapter.rooms.get(record.requestId);
      if (!connected || connected.size === 0) {
        throw new HttpError(409, 'no status socket of this transaction is connected, so its result cannot be delivered');
      }
      const data = { status: '201', auth_req_id: record.authReqId };
      io.to(record.requestId).emit(record.requestId, data);
      hub.socket('emit', { chatcode: record.requestId, sockets: connected.size, data: JSON.stringify([data]) });
      Object.assign(answer, { emitted: true, event: record.requestId, data: [data], sockets: connected.size });
      record.resultEmitted = true;
    }
    record.outcome = { outcome: body.outcome, steps, at: new Date().toISOString() };
    record.steps = steps;
    transactions.changed(record);
    return [200, answer];
  }

  function sendFile(response, name, type) {
    send(response, 200, fs.readFileSync(path.join(PUBLIC, name), 'utf8'), type);
  }

  async function handle(request, response) {
    const url = new URL(request.url, 'http://sandbox');
    if (request.method === 'GET' && STATIC[url.pathname]) return sendFile(response, url.pathname.slice(1), STATIC[url.pathname]);
    let logged = true;
    let status = 500;
    let answer = null;
    try {
      request.body = await readBody(request);
      request.query = url.searchParams;
      const matching = routes.filter(([, pattern]) => pattern.test(url.pathname));
      const route = matching.find(([method]) => method === request.method);
      if (!route) {
        throw matching.length
          ? new HttpError(405, `${request.method} is not allowed on ${url.pathname}; use ${matching.map(([m]) => m).join(' or ')}`)
          : new HttpError(404, `nothing at ${url.pathname}`);
      }
      const [, pattern, handler, log] = route;
      logged = log;
      const params = url.pathname.match(pattern).slice(1).map(decodeURIComponent);
      const result = await handler(request, response, ...params);
      if (Array.isArray(result)) [status, answer] = result;
      else status = response.statusCode;
    } catch (error) {
      status = error instanceof HttpError ? error.status : error instanceof URIError ? 400 : 500;
      answer = { error: error instanceof HttpError || error instanceof URIError ? error.message : 'the sandbox failed; see its output' };
      if (status === 500) console.error(error);
    }
    if (answer !== null) send(response, status, answer);
    if (logged) hub.request(request, status, request.body || '', answer && answer.error);
  }

  const server = http.createServer((request, response) => {
    handle(request, response).catch((error) => {
      console.error(error);
      send(response, 500, { error: 'the sandbox failed; see its output' });
    });
  });
  server.on('clientError', (error, socket) => {
    if (socket.writable) socket.end('HTTP/1.1 400 Bad Request\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n{"error":"bad request"}');
    else socket.destroy();
  });

  const io = new Server(server, { serveClient: false });
  io.use((socket, next) => {
    const chatcode = socket.handshake.headers.chatcode;
    const record = chatcode ? transactions.byRequestId(chatcode) : null;
    const transport = socket.conn.transport.name;
    let reason = null;
    if (!chatcode) reason = 'no chatcode header';
    else if (!record) reason = 'the chatcode names no transaction';
    else if (record.options.refuseSocket) reason = 'this transaction refuses its socket (refuseSocket)';
    if (!reason) return next();
    hub.socket('refused', { chatcode: chatcode || '-', transport, reason });
    if (record) {
      record.sockets.push({ chatcode, transport, connectedAt: null, disconnectedAt: null, refused: true, reason, at: new Date().toISOString() });
      transactions.changed(record);
    }
    next(new Error(`connection refused: ${reason}`));
  });
  io.on('connection', (socket) => {
    const record = transactions.byRequestId(socket.handshake.headers.chatcode);
    const entry = { chatcode: record.requestId, transport: socket.conn.transport.name, connectedAt: new Date().toISOString(),
                    disconnectedAt: null, refused: false };
    record.sockets.push(entry);
    socket.join(record.requestId);
    hub.socket('connect', { chatcode: entry.chatcode, transport: entry.transport, id: socket.id });
    transactions.changed(record);
    socket.conn.on('upgrade', (transport) => {
      entry.transport = transport.name;
      transactions.changed(record);
    });
    socket.on('disconnect', (reason) => {
      Object.assign(entry, { disconnectedAt: new Date().toISOString(), reason });
      hub.socket('disconnect', { chatcode: entry.chatcode, reason });
      transactions.changed(record);
    });
  });

  return {
    server,
    hub,
    transactions,
    listen() {
      return new Promise((resolve, reject) => {
        server.once('error', reject);
        server.listen(port, host, () => {
          const { port: bound } = server.address();
          const shown = host === '0.0.0.0' || host === '::' ? '127.0.0.1' : host.includes(':') ? `[${host}]` : host;
          state.origin = `http://${shown}:${bound}`;
          resolve(state.origin);
        });
      });
    },
    // Closes the status sockets, the event streams, every connection and the listener.
    close() {
      hub.stop();
      return new Promise((resolve) => {
        io.close(() => resolve());
        server.closeAllConnections();
      });
    },
  };
}

module.exports = { createSandbox };

'use strict';
// The transactions the sandbox minted, what the library and the page told about each, and the
// messages that deliver one to a host app (push, encrypted push, deep link).
const { encryptPush, bindingKeys, randomId, randomChallenge } = require('./crypto');
const { HttpError, isObject } = require('./http');

const REALM = 'sandbox';
const MODES = ['verify', 'playground', 'appToApp'];
const OPTIONS = { auto: 'boolean', mode: 'string', fail: 'boolean', refuseSocket: 'boolean', action: 'string' };
// The values of the status report, as the library sends them.
const STATUS_NAMES = { 201: 'started', 200: 'completed', 205: 'connectionReset', 403: 'userClosed' };

function checkOptions(body) {
  if (!isObject(body)) throw new HttpError(400, 'the options must be a JSON object');
  for (const [name, value] of Object.entries(body)) {
    if (!(name in OPTIONS)) throw new HttpError(400, `unknown option "${name}"; the options are ${Object.keys(OPTIONS).join(', ')}`);
    if (typeof value !== OPTIONS[name]) throw new HttpError(400, `option "${name}" must be a ${OPTIONS[name]}`);
  }
  const options = { auto: false, mode: 'verify', fail: false, refuseSocket: false, ...body };
  if (!MODES.includes(options.mode)) throw new HttpError(400, `option "mode" must be one of ${MODES.join(', ')}`);
  if ('action' in body) {
    let url = null;
    try {
      url = new URL(body.action);
    } catch {
      // Reported below.
    }
    if (!url || !/^https?:$/.test(url.protocol)) throw new HttpError(400, 'option "action" must be an http or https URL');
  }
  return options;
}

class Transactions {
  constructor(onChange) {
    this.byId = new Map();
    this.onChange = onChange;
  }

  // A new transaction and the mint answer; `origin` is the sandbox's own http://HOST:PORT.
  mint(body, origin) {
    const options = checkOptions(body);
    const id = randomId('tx_');
    const record = {
      id,
      requestId: randomId('req_'),
      authReqId: randomId('auth_', 12),
      createdAt: new Date().toISOString(),
      options,
      statuses: [],
      sockets: [],
      pageLoads: 0,
      returnLoads: 0,
      steps: [],
      binding: null,
      biometric: null,
      fido: { registration: null, authentication: null },
      sekuraLoads: 0,
      outcome: null,
      resultEmitted: false,
    };
    const page = `${origin}/verify/${id}${options.auto ? '?auto=1' : ''}`;
    const transaction = {
      action: options.action || page,
      socket: { url: origin, requestId: record.requestId },
      type: 'verification',
    };
    const sealed = encryptPush(JSON.stringify(transaction));
    const payload = { version: 1, id: 'kn_auth', isEncrypted: 0, data: transaction };
    const encryptedPayload = { ...payload, isEncrypted: 1, data: sealed.ciphertext };
    const actionToken = randomId('at_', 16);
    // Secrets stay off the record that the dashboard and the API show.
    Object.defineProperty(record, 'secret', {
      enumerable: false,
      value: { actionToken, payload, encryptedPayload, keys: null, challenge: randomChallenge(), biometricChallenge: randomChallenge(),
               faceToken: randomId('face_', 16), fido: null },
    });
    this.byId.set(id, record);
    this.onChange(record);

    const deeplink = new URL('https://sandbox.kelvane.test/deeplink');
    deeplink.searchParams.set('base_url', `${origin}/payload`);
    deeplink.searchParams.set('action_token', actionToken);
    deeplink.searchParams.set('id', id);
    deeplink.searchParams.set('realm_id', REALM);
    return {
      id,
      requestId: record.requestId,
      authReqId: record.authReqId,
      push: { payload: JSON.stringify(payload) },
      pushEncrypted: { payload: JSON.stringify(encryptedPayload) },
      encryptionKey: sealed.key,
      deeplink: deeplink.toString(),
      qr: `${origin}/api/transactions/${id}/qr.png`,
      transaction,
      dashboard: `${origin}/#${id}`,
    };
  }

  get(id) {
    const record = this.byId.get(id);
    if (!record) throw new HttpError(404, `no transaction "${id}"`);
    return record;
  }

  find(id) {
    return this.byId.get(id) || null;
  }

  byRequestId(requestId) {
    for (const record of this.byId.values()) if (record.requestId === requestId) return record;
    return null;
  }

  list() {
    return [...this.byId.values()];
  }

  // The RSA pair of the page's silent binding and biometric registration, made on first use.
  keys(record) {
    if (!record.secret.keys) record.secret.keys = bindingKeys();
    return record.secret.keys;
  }

  changed(record) {
    this.onChange(record);
  }
}

module.exports = { Transactions, checkOptions, STATUS_NAMES, REALM };

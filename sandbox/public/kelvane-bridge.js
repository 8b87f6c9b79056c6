/*
 * kelvane-bridge.js: the page kit for the Kelvane native bridge.
 *
 * Include it with a script tag, before your own script (no build step, no dependencies):
 *
 *     <script src="/kelvane-bridge.js"></script>
 *     <script>
 *       KelvaneBridge.copyToClipboard({ text: 'hello' })
 *         .then(function (answer) { console.log(answer.success); })
 *         .catch(function (error) { console.log(error.code, error.message); });
 *     </script>
 *
 * API (every call returns a Promise and never throws):
 *   KelvaneBridge.call(name, body, { timeout })   posts body to window.webkit.messageHandlers[name]
 *                                                 and resolves with the host's answer (an object)
 *   KelvaneBridge.<event>(body, { timeout })      the same, one function per event of KelvaneBridge.events
 *                                                 (isEventSupported, checkBiometric, registerBiometric, ...)
 *   KelvaneBridge.success(), KelvaneBridge.failure()
 *                                                 end the transaction; they resolve once posted, since
 *                                                 the host never answers them
 *   KelvaneBridge.check(name, body)               null, or the KelvaneBridgeError a call would reject with
 *   KelvaneBridge.isInHost()                      whether the page runs inside a host
 *   KelvaneBridge.defaultTimeout                  milliseconds a call waits for its answer (30000); a call's
 *                                                 { timeout } overrides it; 0 waits for ever
 *   KelvaneBridge.events                          the 21 event names, in the host's order
 *   KelvaneBridge.contract                        per event, what its body must hold (see below)
 *   KelvaneBridge.samples                         a valid body for every event
 *   KelvaneBridge.byteObject(bytes)               bytes in the form the FIDO events read ({"0": 1, "1": 2})
 *   KelvaneBridge.fidoRegistrationBody(options)   the registerFido body for WebAuthn creation options in
 *                                                 their JSON form (base64url challenge and user id, as
 *                                                 a relying-party library issues them)
 *   KelvaneBridge.fidoAuthenticationBody(options) the signFido body for WebAuthn request options in JSON
 *
 * The data of a successful registerFido or signFido answer is a PublicKeyCredential in its JSON
 * form (id, rawId, type, response, base64url values): post it to the relying party as it is.
 *
 * Errors: a call rejects with a KelvaneBridgeError whose `code` is
 *   notInHost     the host's handler for the event is missing: open the page through the host app
 *   invalidBody   the body breaks the contract; `field` names the offending path. The call never
 *                 reaches the host, because there it would end the host's process or be answered twice
 *   timeout       no answer within the time-out
 *   unknownEvent  the name is not one of the 21 events
 *
 * Answers carry no request id: the host names only the event. Two pending calls of one event are
 * matched in order, the oldest pending call taking the next answer of that name. A late answer of
 * a call that timed out goes to the next pending call of that name, so after a time-out call that
 * event again only if you can tell its answers apart. An answer with no pending call is dropped.
 * The kit installs window.iosCallback(name, value); a callback that the page defined before
 * including the kit is still called, after the kit's.
 *
 * Contract entries: { answers, body: 'ignored' | 'object', needs?, note?, fields: [field...] },
 * a field being { path, type: 'string' | 'object' | 'array', items?: 'object',
 * format?: 'rsaPublicKey' | 'url', missing, wrong }. `missing` and `wrong` say what the host does,
 * without the kit, with a body that lacks the field or holds another type or format there:
 *   'fatal'                     its process ends at once
 *   'fatalAfterAuthentication'  its process ends once the device owner has authenticated
 *   'fatalAtVerifyBiometric'    it stores the body; a later verifyBiometric ends its process
 *   'twoAnswers'                it answers "jsMissingFields", then goes on and answers again
 *   'accepted'                  it takes the body; the kit is stricter on purpose
 * For a body of 'object', a body that is not a JSON object ends the host's process.
 */
(function (global) {
  'use strict';

  if (global.KelvaneBridge) return;

  var PUBLIC_KEY =
    'MIIBCgKCAQEAk7FEXUt8r3CVjVEqWPaHFMRdL8oO/3Gfca8r9QBEt8Bs1lke5AowWPdKrd34x/rYIp+YlEM2lHGJj6ld2LtEsYQwb68kTZc42qJ0' +
    'FUlTwTjH1BkntvlhOcYWErmvyi6mjaYERgW5VWqShGSg1HmZ5y+StWUDDw7CZ6EUB0GS2PozhzL5dghmdKKvg55fcwlGpIAIlj1MMOwqYh4mWKkj' +
    'zZ1g5SBwhS6EC/wF+iqbU6SXwG9g77XPhkvyn6b1N0Pzrk5BooqyJIpu0NOV8yeTwQiSn2cslQgaCxOIH2v/ZTb7HcZJAgcexs5tOm23v0HMy5Tc' +
    'VMNxCldkPRO/hdfKuQIDAQAB';

  function field(path, type, missing, wrong, extra) {
    return Object.assign({ path: path, type: type, missing: missing, wrong: wrong }, extra);
  }
  function fatal(path, type, extra) { return field(path, type, 'fatal', 'fatal', extra); }
  function object(fields, extra) { return Object.assign({ answers: true, body: 'object', fields: fields }, extra); }
  function ignored(note, answers) {
    return Object.assign({ answers: answers !== false, body: 'ignored', fields: [] }, note ? { note: note } : {});
  }

  var fido = 'params.publicKey';
  var ashield = object([fatal('authTransactionId', 'string'), fatal('regTransactionId', 'string')]);
  var faceVerification = object([fatal('streamingUrl', 'string', { format: 'url' }), fatal('token', 'string')]);

  // In the host's order, which is also the order of isEventSupported's list.
  var contract = {
    isEventSupported: ignored(),
    success: ignored('ends the transaction; no answer', false),
    failure: ignored('ends the transaction, reported as closed by the user; no answer', false),
    checkBiometric: ignored(),
    registerBiometric: object([
      field('publicKey', 'string', 'twoAnswers', 'fatalAtVerifyBiometric'),
      field('credentialId', 'string', 'twoAnswers', 'accepted'),
    ], { note: 'the whole body is stored on the device, replacing an earlier one' }),
    verifyBiometric: object([field('challenge', 'string', 'fatalAfterAuthentication', 'fatalAfterAuthentication')], {
      needs: 'registerBiometric',
      note: 'the challenge is base64 text; without a stored registration the host stops once the owner authenticates',
    }),
    registerAshield: ashield,
    authenticateAshield: ashield,
    registerFido: object([
      fatal('params', 'object'),
      fatal(fido, 'object'),
      fatal(fido + '.challenge', 'object'),
      fatal(fido + '.rp', 'object'),
      fatal(fido + '.rp.id', 'string'),
      fatal(fido + '.rp.name', 'string'),
      fatal(fido + '.user', 'object'),
      fatal(fido + '.user.id', 'object'),
      fatal(fido + '.user.name', 'string'),
      fatal(fido + '.user.displayName', 'string'),
      fatal(fido + '.pubKeyCredParams', 'array', { items: 'object' }),
    ], { note: 'byte members are byteObject() forms; only a text "alg" (such as "-7") counts' }),
    signFido: object([
      fatal('params', 'object'),
      fatal(fido, 'object'),
      fatal(fido + '.challenge', 'object'),
      fatal(fido + '.rpId', 'string'),
      fatal(fido + '.allowCredentials', 'array', { items: 'object' }),
    ], { note: 'a credential without an object "id" and a text "type" is dropped' }),
    getFcmToken: ignored('the host app must return a push token'),
    isJsFidoSupported: ignored(),
    registerSilentBinding: object([fatal('remotePublicKey', 'string', { format: 'rsaPublicKey' })]),
    verifySilentBinding: object([fatal('challenge', 'string')], { note: 'the challenge is base64 text' }),
    readDeviceDetails: ignored('may wait for the user to answer a location dialog'),
    copyToClipboard: object([fatal('text', 'string')]),
    registerIproov: faceVerification,
    verifyIproov: faceVerification,
    getCurrentNetwork: ignored(),
    loadSekuraSessionUrl: object([fatal('url', 'string')]),
    isCustomSchemeRegisteredOnApp: object([fatal('scheme', 'string'), fatal('host', 'string')]),
  };
  var events = Object.keys(contract);

  function byteObject(bytes) {
    var out = {};
    for (var i = 0; i < bytes.length; i++) out[String(i)] = bytes[i];
    return out;
  }

  function base64urlBytes(text) {
    var standard = String(text).replace(/-/g, '+').replace(/_/g, '/');
    while (standard.length % 4) standard += '=';
    return base64Bytes(standard) || [];
  }

  // Only a text "alg" reaches the host's authenticator, so the numbers become texts.
  function fidoRegistrationBody(options) {
    return { params: { publicKey: {
      challenge: byteObject(base64urlBytes(options.challenge)),
      rp: { id: options.rp.id, name: options.rp.name },
      user: { id: byteObject(base64urlBytes(options.user.id)), name: options.user.name, displayName: options.user.displayName },
      pubKeyCredParams: (options.pubKeyCredParams || []).map(function (entry) {
        return { type: entry.type, alg: String(entry.alg) };
      }),
    } } };
  }

  function fidoAuthenticationBody(options) {
    return { params: { publicKey: {
      challenge: byteObject(base64urlBytes(options.challenge)),
      rpId: options.rpId,
      allowCredentials: (options.allowCredentials || []).map(function (entry) {
        return { type: entry.type || 'public-key', id: byteObject(base64urlBytes(entry.id)) };
      }),
    } } };
  }

  var samples = {
    registerBiometric: { publicKey: PUBLIC_KEY, credentialId: 'credential-1' },
    verifyBiometric: { challenge: 'c2FuZGJveCBjaGFsbGVuZ2U=' },
    registerAshield: { authTransactionId: 'auth-tx-1', regTransactionId: 'reg-tx-1' },
    authenticateAshield: { authTransactionId: 'auth-tx-1', regTransactionId: 'reg-tx-1' },
    registerFido: { params: { publicKey: {
      challenge: byteObject([1, 2, 3, 4, 5, 6, 7, 8]),
      rp: { id: 'kelvane.test', name: 'Kelvane sandbox' },
      user: { id: byteObject([9, 8, 7, 6]), name: 'ada@kelvane.test', displayName: 'Ada' },
      pubKeyCredParams: [{ type: 'public-key', alg: '-7' }, { type: 'public-key', alg: '-257' }],
    } } },
    signFido: { params: { publicKey: {
      challenge: byteObject([1, 2, 3, 4, 5, 6, 7, 8]),
      rpId: 'kelvane.test',
      allowCredentials: [{ type: 'public-key', id: byteObject([16, 32, 48, 64]) }],
    } } },
    registerSilentBinding: { remotePublicKey: PUBLIC_KEY },
    verifySilentBinding: { challenge: 'c2FuZGJveCBjaGFsbGVuZ2U=' },
    copyToClipboard: { text: 'Hello from a Kelvane page' },
    registerIproov: { streamingUrl: 'wss://face.kelvane.test/ws', token: 'face-token-1' },
    verifyIproov: { streamingUrl: 'wss://face.kelvane.test/ws', token: 'face-token-1' },
    loadSekuraSessionUrl: { url: 'https://sekura.kelvane.test/session' },
    isCustomSchemeRegisteredOnApp: { scheme: 'uaepass', host: 'open' },
  };
  events.forEach(function (name) { if (!samples[name]) samples[name] = {}; });

  // ---- Body checks ----

  function kind(value) {
    if (value === null) return 'null';
    if (Array.isArray(value)) return 'an array';
    if (typeof value === 'object') return 'an object';
    if (value === undefined) return 'missing';
    return /^[aeiou]/.test(typeof value) ? 'an ' + typeof value : 'a ' + typeof value;
  }
  var TYPE_NAMES = { string: 'a string', object: 'an object', array: 'an array' };
  function hasType(value, type) {
    if (type === 'array') return Array.isArray(value);
    if (type === 'object') return value !== null && typeof value === 'object' && !Array.isArray(value);
    return typeof value === type;
  }

  // Strict standard base64, as the host decodes keys: whole groups, padding only at the end.
  function base64Bytes(text) {
    if (text.length % 4 !== 0 || !/^[A-Za-z0-9+/]*={0,2}$/.test(text)) return null;
    var alphabet = 'ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/';
    var bytes = [], bits = 0, value = 0;
    for (var i = 0; i < text.length && text[i] !== '='; i++) {
      value = (value << 6) | alphabet.indexOf(text[i]);
      bits += 6;
      if (bits >= 8) { bits -= 8; bytes.push((value >> bits) & 255); }
    }
    return bytes;
  }

  // A DER length at `at`, in its shortest form: { length, next } or null.
  function derLength(bytes, at) {
    var first = bytes[at];
    if (first === undefined) return null;
    if (first < 128) return { length: first, next: at + 1 };
    var count = first - 128, length = 0;
    if (count < 1 || count > 3 || bytes[at + 1] === 0) return null;
    for (var i = 1; i <= count; i++) length = length * 256 + bytes[at + i];
    return length < 128 ? null : { length: length, next: at + 1 + count };
  }

  // PKCS#1 RSAPublicKey, DER: SEQUENCE { INTEGER modulus, INTEGER exponent } and nothing more.
  // SubjectPublicKeyInfo (what WebCrypto exports as "spki") or PEM text is refused by the host.
  function isRsaPublicKey(text) {
    var bytes = base64Bytes(text);
    if (!bytes || bytes[0] !== 0x30) return false;
    var sequence = derLength(bytes, 1);
    if (!sequence || sequence.next + sequence.length !== bytes.length) return false;
    var at = sequence.next, integers = [];
    for (var n = 0; n < 2; n++) {
      if (bytes[at] !== 0x02) return false;
      var integer = derLength(bytes, at + 1);
      if (!integer || integer.length === 0 || integer.next + integer.length > bytes.length) return false;
      var content = bytes.slice(integer.next, integer.next + integer.length);
      if (content[0] >= 0x80 || (content[0] === 0 && (content.length === 1 || content[1] < 0x80))) return false;
      integers.push(content[0] === 0 ? content.slice(1) : content);
      at = integer.next + integer.length;
    }
    // The sealed value takes 44 bytes, more than OAEP leaves in keys under 1024 bits.
    return at === bytes.length && integers[0].length >= 128;
  }

  // An absolute URL the host can parse: a scheme, no white space or characters outside a URI,
  // well-formed escapes, one fragment at most.
  function isURL(text) {
    return /^[A-Za-z][A-Za-z0-9+.-]*:[A-Za-z0-9\-._~:/?#@!$&'()*+,;=%]*$/.test(text) &&
      !/%(?![0-9A-Fa-f]{2})/.test(text) && text.split('#').length <= 2;
  }
  var FORMATS = {
    rsaPublicKey: { test: isRsaPublicKey, text: 'base64 of a PKCS#1 RSA public key of at least 1024 bits (DER, not SubjectPublicKeyInfo or PEM)' },
    url: { test: isURL, text: 'an absolute URL' },
  };

  function KelvaneBridgeError(code, message, event, path) {
    var error = new Error(message);
    Object.setPrototypeOf(error, KelvaneBridgeError.prototype);
    error.name = 'KelvaneBridgeError';
    error.code = code;
    error.event = event;
    if (path !== undefined) error.field = path;
    return error;
  }
  KelvaneBridgeError.prototype = Object.create(Error.prototype, {
    constructor: { value: KelvaneBridgeError, writable: true, configurable: true },
  });

  function invalid(name, path, message) {
    return KelvaneBridgeError('invalidBody', name + ': ' + (path ? 'body.' + path : 'body') + ' ' + message, name, path || '');
  }

  function lookUp(body, path) {
    var value = body;
    path.split('.').forEach(function (key) {
      value = value !== null && typeof value === 'object' && !Array.isArray(value) &&
        Object.prototype.hasOwnProperty.call(value, key) ? value[key] : undefined;
    });
    return value;
  }

  function checkBody(name, body) {
    var entry = contract[name];
    if (entry.body !== 'object') return null;
    if (!hasType(body, 'object')) return invalid(name, '', 'must be an object (it is ' + kind(body) + ')');
    for (var i = 0; i < entry.fields.length; i++) {
      var rule = entry.fields[i], value = lookUp(body, rule.path);
      var wanted = 'must be ' + TYPE_NAMES[rule.type];
      if (value === undefined) return invalid(name, rule.path, wanted + ' (it is missing)');
      if (!hasType(value, rule.type)) return invalid(name, rule.path, wanted + ' (it is ' + kind(value) + ')');
      if (rule.format && !FORMATS[rule.format].test(value)) return invalid(name, rule.path, 'must be ' + FORMATS[rule.format].text);
      if (rule.items) {
        for (var j = 0; j < value.length; j++) {
          if (!hasType(value[j], rule.items)) {
            return invalid(name, rule.path + '[' + j + ']', 'must be ' + TYPE_NAMES[rule.items] + ' (it is ' + kind(value[j]) + ')');
          }
        }
      }
    }
    return null;
  }

  function handler(name) {
    var webkit = global.webkit;
    var handlers = webkit && webkit.messageHandlers;
    var found = handlers && handlers[name];
    return found && typeof found.postMessage === 'function' ? found : null;
  }

  function check(name, body) {
    if (!Object.prototype.hasOwnProperty.call(contract, name)) {
      return KelvaneBridgeError('unknownEvent', 'KelvaneBridge: "' + name + '" is not a bridge event; the events are ' + events.join(', '), name);
    }
    var broken = checkBody(name, body);
    if (broken) return broken;
    if (!handler(name)) {
      return KelvaneBridgeError('notInHost', name + ': window.webkit.messageHandlers.' + name +
        ' is missing, so this page is not inside a Kelvane host. Open it through the host app.', name);
    }
    return null;
  }

  // ---- Calls and answers ----

  var pending = {};

  function settle(name, value) {
    var queue = pending[name];
    if (!queue || queue.length === 0) return;
    var call = queue.shift();
    if (call.timer) clearTimeout(call.timer);
    call.resolve(value);
  }

  function call(name, body, options) {
    return new Promise(function (resolve, reject) {
      if (body === undefined && contract[name] && contract[name].body === 'ignored') body = {};
      var refused = check(name, body);
      if (refused) return reject(refused);
      var entry = { resolve: resolve };
      if (contract[name].answers) {
        var timeout = options && options.timeout !== undefined ? options.timeout : bridge.defaultTimeout;
        if (timeout > 0) {
          entry.timer = setTimeout(function () {
            var queue = pending[name], at = queue.indexOf(entry);
            if (at >= 0) queue.splice(at, 1);
            reject(KelvaneBridgeError('timeout', name + ': no answer from the host within ' + timeout + ' ms', name));
          }, timeout);
        }
        (pending[name] = pending[name] || []).push(entry);
      }
      try {
        handler(name).postMessage(body);
      } catch (error) {
        if (entry.timer) clearTimeout(entry.timer);
        if (pending[name]) pending[name] = pending[name].filter(function (other) { return other !== entry; });
        return reject(KelvaneBridgeError('invalidBody', name + ': the host could not take the body (' + error.message + ')', name, ''));
      }
      if (!contract[name].answers) resolve();
    });
  }

  var earlier = global.iosCallback;
  global.iosCallback = function (name, value) {
    settle(String(name), value);
    if (typeof earlier === 'function') return earlier.apply(this, arguments);
  };

  var bridge = {
    version: '1',
    defaultTimeout: 30000,
    events: events.slice(),
    contract: contract,
    samples: samples,
    call: call,
    check: check,
    byteObject: byteObject,
    fidoRegistrationBody: fidoRegistrationBody,
    fidoAuthenticationBody: fidoAuthenticationBody,
    isInHost: function () { return events.every(function (name) { return handler(name) !== null; }); },
    KelvaneBridgeError: KelvaneBridgeError,
  };
  events.forEach(function (name) {
    bridge[name] = function (body, options) { return call(name, body, options); };
  });

  global.KelvaneBridgeError = KelvaneBridgeError;
  global.KelvaneBridge = bridge;
})(typeof window !== 'undefined' ? window : this);

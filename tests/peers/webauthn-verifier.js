// A WebAuthn relying party on standard input: each line is a JSON request, each answer one
// line on standard output that starts with the request's "tag". It verifies with @simplewebauthn/server, as a real relying party
// would.
//   {"op":"register","rpId":..,"challenge":<base64url>,"response":<RegistrationResponseJSON>}
//     -> REGISTERED {"verified":..,"credential":{"id","publicKey","point","counter"},"fmt":..}
//   {"op":"authenticate","rpId":..,"challenge":..,"response":<AuthenticationResponseJSON>,
//    "credential":<as registered>}
//     -> AUTHENTICATED {"verified":..,"newCounter":..}
// A refusal prints REFUSED and the library's message. The origin is https://<rpId>. Ends when
// its standard input closes.
'use strict';
const readline = require('readline');
const { verifyRegistrationResponse, verifyAuthenticationResponse } = require('@simplewebauthn/server');
const { convertCOSEtoPKCS } = require('@simplewebauthn/server/helpers');

const base64url = (bytes) => Buffer.from(bytes).toString('base64url');

async function handle(request) {
  const common = {
    response: request.response,
    expectedChallenge: request.challenge,
    expectedOrigin: `https://${request.rpId}`,
    expectedRPID: request.rpId,
    requireUserVerification: false,
  };
  if (request.op === 'register') {
    const result = await verifyRegistrationResponse(common);
    const info = result.registrationInfo;
    return 'REGISTERED ' + JSON.stringify({
      verified: result.verified,
      userVerified: info && info.userVerified,
      fmt: info && info.fmt,
      credential: info && {
        id: info.credential.id,
        publicKey: base64url(info.credential.publicKey),
        // The uncompressed point 04||x||y, for comparing with a key kept elsewhere.
        point: base64url(convertCOSEtoPKCS(info.credential.publicKey)),
        counter: info.credential.counter,
      },
    });
  }
  const credential = request.credential;
  const result = await verifyAuthenticationResponse({
    ...common,
    credential: { id: credential.id, publicKey: Buffer.from(credential.publicKey, 'base64url'), counter: credential.counter },
  });
  return 'AUTHENTICATED ' + JSON.stringify({ verified: result.verified, newCounter: result.authenticationInfo.newCounter,
                                             userVerified: result.authenticationInfo.userVerified });
}

const lines = readline.createInterface({ input: process.stdin });
let queue = Promise.resolve();
lines.on('line', (line) => {
  queue = queue.then(async () => {
    try {
      const request = JSON.parse(line);
      let answer;
      try {
        answer = await handle(request);
      } catch (error) {
        answer = 'REFUSED ' + String(error && error.message).replace(/\n/g, ' ');
      }
      console.log(`${request.tag} ${answer}`);
    } catch (error) {
      console.log('UNREADABLE ' + String(error && error.message));
    }
  });
});
lines.on('close', () => queue.then(() => process.exit(0)));
console.log('READY');

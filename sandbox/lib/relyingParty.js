'use strict';
// The sandbox as a WebAuthn relying party: it issues registration and authentication options
// for a transaction and verifies what the page sends back with @simplewebauthn/server, the way
// a production backend would. A native authenticator answers for the relying party's own
// origin, https://<rp id>, as an app associated with that domain does.
const crypto = require('crypto');
const {
  generateRegistrationOptions,
  generateAuthenticationOptions,
  verifyRegistrationResponse,
  verifyAuthenticationResponse,
} = require('@simplewebauthn/server');
const { HttpError, isObject } = require('./http');

const RP_ID = 'sandbox.kelvane.test';
const RP_NAME = 'Kelvane sandbox';
const ORIGIN = `https://${RP_ID}`;
const ES256 = -7;

function checked(data, what) {
  if (!isObject(data) || typeof data.id !== 'string' || !isObject(data.response)) {
    throw new HttpError(400, `the body must be the ${what} the host answered (an object with "id" and "response")`);
  }
  return data;
}

// A verification's verdict in one shape; the library's reason when it refuses.
async function verdictOf(run) {
  try {
    return await run();
  } catch (error) {
    return { verified: false, reason: error.message };
  }
}

class RelyingParty {
  constructor({ rpID = RP_ID, origin = ORIGIN } = {}) {
    this.rpID = rpID;
    this.origin = origin;
  }

  // Per transaction: a user of its own, the pending challenges, and the registered credential.
  state(record) {
    if (!record.secret.fido) {
      record.secret.fido = { userID: crypto.randomBytes(16), registration: null, authentication: null, credential: null };
    }
    return record.secret.fido;
  }

  async registrationOptions(record) {
    const fido = this.state(record);
    const options = await generateRegistrationOptions({
      rpName: RP_NAME,
      rpID: this.rpID,
      userID: fido.userID,
      userName: `${record.id}@${this.rpID}`,
      userDisplayName: `Sandbox user of ${record.id}`,
      attestationType: 'none',
      supportedAlgorithmIDs: [ES256],
      authenticatorSelection: { residentKey: 'preferred', userVerification: 'preferred' },
    });
    fido.registration = options.challenge;
    return options;
  }

  async verifyRegistration(record, data) {
    const fido = this.state(record);
    checked(data, 'registration');
    if (!fido.registration) throw new HttpError(409, 'ask for registration options first');
    const verdict = await verdictOf(async () => {
      const result = await verifyRegistrationResponse({
        response: data,
        expectedChallenge: fido.registration,
        expectedOrigin: this.origin,
        expectedRPID: this.rpID,
        requireUserVerification: false,
      });
      if (!result.verified) return { verified: false, reason: 'not verified' };
      const { credential, fmt } = result.registrationInfo;
      fido.credential = { id: credential.id, publicKey: credential.publicKey, counter: credential.counter };
      return { verified: true, credentialId: credential.id, format: fmt, counter: credential.counter };
    });
    fido.registration = null;
    record.fido.registration = { ...verdict, at: new Date().toISOString() };
    return verdict;
  }

  async authenticationOptions(record) {
    const fido = this.state(record);
    if (!fido.credential) throw new HttpError(409, 'no credential is registered for this transaction');
    const options = await generateAuthenticationOptions({
      rpID: this.rpID,
      allowCredentials: [{ id: fido.credential.id }],
      userVerification: 'preferred',
    });
    fido.authentication = options.challenge;
    return options;
  }

  async verifyAuthentication(record, data) {
    const fido = this.state(record);
    checked(data, 'assertion');
    if (!fido.authentication || !fido.credential) throw new HttpError(409, 'ask for authentication options first');
    const before = fido.credential.counter;
    const verdict = await verdictOf(async () => {
      const result = await verifyAuthenticationResponse({
        response: data,
        expectedChallenge: fido.authentication,
        expectedOrigin: this.origin,
        expectedRPID: this.rpID,
        credential: fido.credential,
        requireUserVerification: false,
      });
      if (!result.verified) return { verified: false, reason: 'not verified' };
      fido.credential.counter = result.authenticationInfo.newCounter;
      return { verified: true, counterBefore: before, counter: result.authenticationInfo.newCounter };
    });
    fido.authentication = null;
    record.fido.authentication = { ...verdict, at: new Date().toISOString() };
    return verdict;
  }
}

module.exports = { RelyingParty, RP_ID, ORIGIN };

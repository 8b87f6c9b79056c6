'use strict';
// What the sandbox seals and checks: the encrypted push, the silent binding of a device and its
// biometric challenge.
const crypto = require('crypto');

// AES-256-ECB with PKCS#7 padding. The host app opens it with a key written as base64 without
// its "=" padding (43 characters): the library accepts no other form of a 32-byte key.
function encryptPush(plainText) {
  const key = crypto.randomBytes(32);
  const cipher = crypto.createCipheriv('aes-256-ecb', key, null);
  const ciphertext = Buffer.concat([cipher.update(plainText, 'utf8'), cipher.final()]);
  return { key: key.toString('base64').replace(/=+$/, ''), ciphertext: ciphertext.toString('base64') };
}

// A 2048-bit RSA pair; the page hands the public half to the device as base64 of PKCS#1 DER.
function bindingKeys() {
  return new Promise((resolve, reject) => {
    crypto.generateKeyPair('rsa', { modulusLength: 2048 }, (error, publicKey, privateKey) => {
      if (error) return reject(error);
      resolve({ publicKey: publicKey.export({ type: 'pkcs1', format: 'der' }).toString('base64'), privateKey });
    });
  });
}

const STRICT_BASE64 = /^(?:[A-Za-z0-9+/]{4})*(?:[A-Za-z0-9+/]{2}==|[A-Za-z0-9+/]{3}=)?$/;
const decode64 = (text) => (typeof text === 'string' && STRICT_BASE64.test(text) ? Buffer.from(text, 'base64') : null);
const sha256 = (...parts) => crypto.createHash('sha256').update(Buffer.concat(parts)).digest();

// Checks a device's two silent-binding answers. The device sealed the base64 text of S, the
// SHA-256 of its identifier; it then proves it still holds S: challengeHash is SHA-256 of the
// challenge bytes followed by S, and keyHashFirst6 the first 6 bytes of S, each in base64.
function verifyBinding({ privateKey, challenge, encryptedDeviceId, challengeHash, keyHashFirst6 }) {
  const checks = { decrypted: false, challengeHash: false, keyHashFirst6: false };
  let secret = null;
  const sealed = decode64(encryptedDeviceId);
  if (sealed) {
    try {
      const opened = crypto.privateDecrypt(
        { key: privateKey, padding: crypto.constants.RSA_PKCS1_OAEP_PADDING, oaepHash: 'sha1' }, sealed);
      secret = decode64(opened.toString('latin1'));
      checks.decrypted = secret !== null && secret.length === 32;
    } catch {
      // Another key, or not OAEP: the check stays false.
    }
  }
  if (checks.decrypted) {
    checks.challengeHash = sha256(Buffer.from(challenge, 'base64'), secret).toString('base64') === challengeHash;
    checks.keyHashFirst6 = secret.subarray(0, 6).toString('base64') === keyHashFirst6;
  }
  const verified = checks.decrypted && checks.challengeHash && checks.keyHashFirst6;
  const failed = Object.keys(checks).filter((name) => !checks[name]);
  return { verified, checks, reason: verified ? null : `failed: ${failed.join(', ')}` };
}

// Checks the answer of "verifyBiometric": the device encrypted the challenge's bytes under the
// public key the page registered, after its owner authenticated.
function verifyBiometric({ privateKey, challenge, encryptedChallenge }) {
  const sealed = decode64(encryptedChallenge);
  if (!sealed) return { verified: false, reason: 'encryptedChallenge is not base64' };
  try {
    const opened = crypto.privateDecrypt(
      { key: privateKey, padding: crypto.constants.RSA_PKCS1_OAEP_PADDING, oaepHash: 'sha1' }, sealed);
    const verified = opened.equals(Buffer.from(challenge, 'base64'));
    return { verified, reason: verified ? null : 'the decrypted challenge is not the one issued' };
  } catch {
    return { verified: false, reason: 'not sealed under the registered key' };
  }
}

const randomId = (prefix, bytes = 8) => `${prefix}${crypto.randomBytes(bytes).toString('hex')}`;
const randomChallenge = () => crypto.randomBytes(32).toString('base64');

module.exports = { encryptPush, bindingKeys, verifyBinding, verifyBiometric, randomId, randomChallenge };

#!/usr/bin/env node
'use strict';
// Prints the page kit's contract as JSON, for checking it against the library:
//   {"events":[{"name","index","answers","body","needs","fields","sample","sampleError",
//               "violations":[{"path","kind","expect","body","kitError"}]}]}
// Each violation is the event's sample broken in one place: a required field left out
// ("missing"), of another type ("wrong"), of a bad format ("format"), a list entry of another
// type ("items"), or the whole body not an object ("notObject"); `expect` is what the host does
// with it by the kit's table, and `kitError` the kit's own refusal (null if the kit lets it by).
const crypto = require('crypto');
const { loadKit } = require('./kit');

const WRONG = { string: 7, object: 'text', array: 'text' };

function clone(value) {
  return JSON.parse(JSON.stringify(value));
}

// A copy of `body` with the value at the dotted `path` replaced, or removed when `value` is undefined.
function withValue(body, path, value) {
  const copy = clone(body);
  const keys = path.split('.');
  const parent = keys.slice(0, -1).reduce((object, key) => object[key], copy);
  if (value === undefined) delete parent[keys[keys.length - 1]];
  else parent[keys[keys.length - 1]] = value;
  return copy;
}

function valueAt(body, path) {
  return path.split('.').reduce((object, key) => object[key], body);
}

// Values of a good type and a bad form, for each format of the kit.
function badFormats(format, sample) {
  if (format === 'url') return ['not a url'];
  // The same key wrapped as SubjectPublicKeyInfo, as WebCrypto exports it, and text that is no base64.
  const spki = crypto.createPublicKey({ key: Buffer.from(sample, 'base64'), format: 'der', type: 'pkcs1' })
    .export({ type: 'spki', format: 'der' }).toString('base64');
  return [spki, 'not base64!'];
}

function violations(kit, name) {
  const entry = kit.contract[name];
  const sample = kit.samples[name];
  const list = [];
  const add = (path, kind, expect, body) => {
    const refusal = kit.check(name, body);
    list.push({ path, kind, expect, body, kitError: refusal ? refusal.message : null });
  };
  if (entry.body !== 'object') return list;
  add('', 'notObject', 'fatal', 'text');
  for (const field of entry.fields) {
    add(field.path, 'missing', field.missing, withValue(sample, field.path, undefined));
    add(field.path, 'wrong', field.wrong, withValue(sample, field.path, WRONG[field.type]));
    if (field.format) {
      for (const bad of badFormats(field.format, valueAt(sample, field.path))) add(field.path, 'format', 'fatal', withValue(sample, field.path, bad));
    }
    if (field.items) add(field.path, 'items', 'fatal', withValue(sample, field.path, [...valueAt(sample, field.path), 7]));
  }
  return list;
}

function describe() {
  const kit = loadKit({ inHost: true });
  // Plain JSON data, free of the kit's script context.
  return clone({
    events: kit.events.map((name, index) => {
      const entry = kit.contract[name];
      const refusal = kit.check(name, kit.samples[name]);
      return {
        name, index, answers: entry.answers, body: entry.body, needs: entry.needs || null, fields: entry.fields,
        sample: kit.samples[name], sampleError: refusal ? refusal.message : null, violations: violations(kit, name),
      };
    }),
  });
}

if (require.main === module) console.log(JSON.stringify(describe()));

module.exports = { describe };

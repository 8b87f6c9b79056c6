'use strict';
// Small HTTP helpers: JSON bodies with a size bound, JSON answers, errors that become 4xx.

const MAX_BODY = 64 * 1024;

// An answer that a handler throws: status and a message for {"error": ...}.
class HttpError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

// The whole body as text. Past the bound the rest is read and dropped, so that the client still
// gets its 413 answer rather than a reset.
function readBody(request) {
  return new Promise((resolve, reject) => {
    const chunks = [];
    let size = 0;
    request.on('data', (chunk) => {
      size += chunk.length;
      if (size <= MAX_BODY) chunks.push(chunk);
    });
    request.on('end', () => {
      if (size > MAX_BODY) reject(new HttpError(413, `the body is larger than ${MAX_BODY} bytes`));
      else resolve(Buffer.concat(chunks).toString('utf8'));
    });
    request.on('error', reject);
  });
}

// The body as JSON; an empty body is `empty`.
function parseJson(text, empty) {
  if (text.trim() === '') return empty;
  try {
    return JSON.parse(text);
  } catch (error) {
    throw new HttpError(400, `the body is not JSON: ${error.message}`);
  }
}

function isObject(value) {
  return value !== null && typeof value === 'object' && !Array.isArray(value);
}

function send(response, status, body, type = 'application/json; charset=utf-8') {
  if (response.headersSent) return;
  const text = typeof body === 'string' || Buffer.isBuffer(body) ? body : JSON.stringify(body);
  response.writeHead(status, { 'Content-Type': type, 'Cache-Control': 'no-store', 'Content-Length': Buffer.byteLength(text) });
  response.end(text);
}

module.exports = { HttpError, readBody, parseJson, isObject, send, MAX_BODY };

'use strict';
// The request log and the live feed of the dashboard: every entry goes to the log (bounded),
// to standard output unless quiet, and to the open server-sent-event streams.

const KEEP = 2000;
const HEADERS_SHOWN = ['content-type', 'authorization', 'chatcode', 'cookie'];
const BODY_SHOWN = 4096;

class Hub {
  constructor({ quiet }) {
    this.quiet = quiet;
    this.entries = [];
    this.streams = new Set();
    // Comments keep idle streams open through proxies and tell a closed one early.
    this.keepAlive = setInterval(() => this.broadcast(': keep-alive\n\n'), 15000);
  }

  // A request as the log shows it: method, path, the headers that matter, the body.
  request(request, status, body, note) {
    const headers = {};
    for (const name of HEADERS_SHOWN) if (request.headers[name] !== undefined) headers[name] = request.headers[name];
    this.add({ kind: 'http', method: request.method, path: request.url, status, headers,
               body: body.length > BODY_SHOWN ? `${body.slice(0, BODY_SHOWN)}…` : body, note });
  }

  socket(event, fields) {
    this.add({ kind: 'socket', event, ...fields });
  }

  add(fields) {
    const entry = { at: new Date().toISOString(), ...fields };
    this.entries.push(entry);
    if (this.entries.length > KEEP) this.entries.splice(0, this.entries.length - KEEP);
    if (!this.quiet) console.log(Hub.line(entry));
    this.send('log', entry);
  }

  static line(entry) {
    const time = entry.at.slice(11, 23);
    if (entry.kind === 'socket') {
      const details = Object.entries(entry).filter(([key]) => !['at', 'kind', 'event'].includes(key))
        .map(([key, value]) => `${key}=${value}`).join(' ');
      return `${time} SOCKET ${entry.event} ${details}`;
    }
    const headers = Object.entries(entry.headers).map(([name, value]) => ` [${name}: ${value}]`).join('');
    const body = entry.body ? ` ${entry.body.replace(/\s*\n\s*/g, ' ')}` : '';
    return `${time} ${entry.method} ${entry.path} -> ${entry.status}${headers}${body}${entry.note ? ` (${entry.note})` : ''}`;
  }

  // An SSE stream on `response`, which stays open until the client leaves or the hub stops.
  open(response) {
    response.writeHead(200, { 'Content-Type': 'text/event-stream', 'Cache-Control': 'no-store', Connection: 'keep-alive' });
    response.write('retry: 2000\n\n');
    this.streams.add(response);
    response.on('close', () => this.streams.delete(response));
  }

  send(event, data) {
    this.broadcast(`event: ${event}\ndata: ${JSON.stringify(data)}\n\n`);
  }

  broadcast(text) {
    for (const stream of this.streams) stream.write(text);
  }

  stop() {
    clearInterval(this.keepAlive);
    for (const stream of this.streams) stream.end();
    this.streams.clear();
  }
}

module.exports = { Hub };

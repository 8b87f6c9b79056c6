'use strict';
// The transaction backend's HTTP side on 127.0.0.1, scripted by the test through stdin.
// Usage: node backend-server.js ['<json options>']
//   options: { lifetime: seconds (default 120), quiet (no REQUEST, CONNECT, DISCONNECT lines), socketio: true (the status socket on the
//              same port, as a transaction's socket URL serves both) }
// Prints "PORT <n>" once listening, then for every request, once its body has arrived:
//   REQUEST {"method","path","query":{name: value},"headers":{lower-case name: value},"body"}
// Answers, one-shot and in order per "<METHOD> <path>" (path without query), from stdin lines:
//   answer <METHOD> <path> <status> [body...]   that status, the rest of the line as body
//   drop <METHOD> <path>                        closes the connection without an answer
//   hold <METHOD> <path>                        keeps the request open until a "release" line,
//                                               then answers 200 {} (prints "HELD <path>")
// An unscripted request gets 200 with the body {}.
// With socketio, the default namespace refuses a connection without a "chatcode" header, or
// with the chatcode "refused", and
// prints "CONNECT <json headers>" and "DISCONNECT <reason>"; the stdin line
// "emit <name> <json args array>" emits that event with those arguments to every socket.
// Stops when stdin closes or the lifetime ends.
const http = require('http');
const readline = require('readline');

const options = JSON.parse(process.argv[2] || '{}');
const lifetime = (options.lifetime || 120) * 1000;
const scripts = new Map();
const held = [];

function script(key) {
  if (!scripts.has(key)) scripts.set(key, []);
  return scripts.get(key);
}

readline.createInterface({ input: process.stdin }).on('line', (line) => {
  const words = line.split(' ');
  if (words[0] === 'answer' && words.length >= 4) {
    const body = words.slice(4).join(' ');
    script(`${words[1]} ${words[2]}`).push({ status: Number(words[3]), body });
    console.log(`SCRIPTED ${words[1]} ${words[2]}`);
  } else if (words[0] === 'emit' && io) {
    io.emit(words[1], ...JSON.parse(words.slice(2).join(' ')));
    console.log(`EMITTED ${words[1]}`);
  } else if ((words[0] === 'drop' || words[0] === 'hold') && words.length === 3) {
    script(`${words[1]} ${words[2]}`).push({ [words[0]]: true });
    console.log(`SCRIPTED ${words[1]} ${words[2]}`);
  } else if (words[0] === 'release') {
    held.splice(0).forEach((response) => response.end('{}'));
  }
}).on('close', () => process.exit(0));

const server = http.createServer((request, response) => {
  const url = new URL(request.url, 'http://127.0.0.1');
  const chunks = [];
  request.on('data', (chunk) => chunks.push(chunk));
  request.on('end', () => {
    const record = {
      method: request.method,
      path: url.pathname,
      query: Object.fromEntries(url.searchParams),
      headers: request.headers,
      body: Buffer.concat(chunks).toString('utf8'),
    };
    if (!options.quiet) console.log(`REQUEST ${JSON.stringify(record)}`);
    const answer = script(`${request.method} ${url.pathname}`).shift() || { status: 200, body: '{}' };
    if (answer.drop) {
      request.socket.destroy();
      return;
    }
    if (answer.hold) {
      response.writeHead(200, { 'Content-Type': 'application/json' });
      held.push(response);
      console.log(`HELD ${url.pathname}`);
      return;
    }
    response.writeHead(answer.status, { 'Content-Type': 'application/json' });
    response.end(answer.body);
  });
});

let io = null;
if (options.socketio) {
  const { Server } = require('socket.io');
  io = new Server(server, { serveClient: false });
  io.use((socket, next) => {
    const chatcode = socket.handshake.headers.chatcode;
    if (!chatcode || chatcode === 'refused') {
      console.log(`REFUSED ${chatcode}`);
      next(new Error('not allowed'));
    } else {
      next();
    }
  });
  io.on('connection', (socket) => {
    if (!options.quiet) console.log(`CONNECT ${JSON.stringify(socket.handshake.headers)}`);
    socket.on('disconnect', (reason) => options.quiet || console.log(`DISCONNECT ${reason}`));
  });
}

server.keepAliveTimeout = 1000;
server.listen(0, '127.0.0.1', () => console.log(`PORT ${server.address().port}`));
setTimeout(() => process.exit(0), lifetime).unref();

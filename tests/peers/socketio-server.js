'use strict';
// A Socket.IO server on 127.0.0.1 for the tests and benchmarks.
// Usage: node socketio-server.js '<json options>'
//   options: { port: n (0: ephemeral), lifetime: seconds (default 120), quiet: true (print only
//              the PORT line: load runs), holdUpgrade: true (see below), and any server options
//              (transports, allowEIO3, pingInterval, pingTimeout, allowUpgrades, ...) }
// Prints "PORT <n>" once listening. Namespaces "/" and "/chat" accept everyone; "/refused"
// refuses every connect with the error "not allowed". Every client event is printed as
// "EVENT <nsp> <name> <json args>" (Buffers as {"buffer": hex}), and:
//   "echo"        answers the ack with the same arguments, or emits "echo" back without one
//   "binary"      answers with Buffers nested in objects and arrays
//   "emitBack"    [name, ...args]: the server emits that event with those arguments
//   "flood"       [name, count, ...args]: emits that event count times, then answers the ack
//   "kickMe"      the server disconnects this socket
//   "noAck"       emits "noAck" with an ack of its own, printing "ACKED noAck" when answered
//   "ignore"      leaves its ack unanswered; any other event with an ack gets "ok"
// Also prints "CONNECT <nsp> <json handshake: headers, query, auth>", "DISCONNECT <nsp> <reason>".
// Standard input lines:
//   "emit <nsp> <name> <json args>"  emits to every socket of the namespace
//   "restart <tag> <ms>"             drops everything as a killed server would (connections
//                                    destroyed unannounced, sessions forgotten), listens again on
//                                    the same port after <ms>, then prints "RESTARTED <tag>"
//   "stats <tag>"                    prints "STATS <tag> <json>": sessions (Engine.IO handshakes),
//                                    connects (namespace joins), echoes (echo events received),
//                                    heldAcrossUpgrade (see below), since the start
// holdUpgrade: the WebSocket upgrade request of a polling session waits until a POST arrives
// after the session joined a namespace; that POST is then held until the server has answered
// the probe (plus 0-15 ms, at random), so that it is still under way when the client may switch.
// Every hold is bounded (1 s). On the probe the pending poll is released at once.
// Stops by itself when stdin closes or the lifetime ends.
const http = require('http');
const { Server } = require('socket.io');

const options = JSON.parse(process.argv[2] || '{}');
const lifetime = (options.lifetime || 120) * 1000;
let port = options.port || 0;
const quiet = options.quiet === true;
const holdUpgrade = options.holdUpgrade === true;
delete options.port;
delete options.lifetime;
delete options.quiet;
delete options.holdUpgrade;

const stats = { sessions: 0, connects: 0, echoes: 0, heldAcrossUpgrade: 0 };
const maxHold = 1000;

function shown(value) {
  return JSON.stringify(value, (key, v) => {
    if (v && v.type === 'Buffer' && Array.isArray(v.data)) return { buffer: Buffer.from(v.data).toString('hex') };
    return v;
  });
}

function attach(namespace) {
  namespace.on('connection', (socket) => {
    stats.connects += 1;
    const handshake = { headers: socket.handshake.headers, query: socket.handshake.query, auth: socket.handshake.auth };
    if (!quiet) console.log(`CONNECT ${namespace.name} ${shown(handshake)}`);
    socket.on('disconnect', (reason) => {
      if (!quiet) console.log(`DISCONNECT ${namespace.name} ${reason}`);
    });
    socket.onAny((name, ...args) => {
      const ack = typeof args[args.length - 1] === 'function' ? args.pop() : null;
      if (!quiet) console.log(`EVENT ${namespace.name} ${name} ${shown(args)}`);
      if (name === 'echo') {
        stats.echoes += 1;
        if (ack) ack(...args);
        else socket.emit('echo', ...args);
      } else if (name === 'binary') {
        const payload = { first: Buffer.from([1, 2, 3]), list: [Buffer.from('xy'), { deep: Buffer.from([255]) }] };
        if (ack) ack(payload);
        else socket.emit('binary', payload, Buffer.from([9]));
      } else if (name === 'emitBack') {
        socket.emit(...args);
      } else if (name === 'flood') {
        const [event, count, ...rest] = args;
        for (let i = 0; i < count; i += 1) socket.emit(event, ...rest);
        if (ack) ack('done');
      } else if (name === 'kickMe') {
        socket.disconnect();
      } else if (name === 'noAck') {
        socket.emit('noAck', 'please answer', () => quiet || console.log('ACKED noAck'));
      } else if (ack && name !== 'ignore') {
        ack('ok');
      }
    });
  });
}

// holdUpgrade: per Engine.IO session, what is parked and what it waits for.
function holdState(conn) {
  if (!conn.heldState) conn.heldState = { joined: false, probed: false, parkedUpgrade: null, heldPosts: [] };
  return conn.heldState;
}

function releaseUpgrade(state) {
  const parked = state.parkedUpgrade;
  state.parkedUpgrade = null;
  if (parked) parked();
}

function releasePosts(state) {
  const posts = state.heldPosts;
  state.heldPosts = [];
  const jitter = Math.floor(Math.random() * 16);
  for (const post of posts) setTimeout(() => post(state.probed), jitter);
}

function interpose(server, io) {
  // Engine.IO listens for both events; every request and upgrade passes through here first.
  const onRequest = server.listeners('request');
  const onUpgrade = server.listeners('upgrade');
  server.removeAllListeners('request');
  server.removeAllListeners('upgrade');
  const sidOf = (req) => new URL(req.url, 'http://127.0.0.1').searchParams.get('sid');
  server.on('request', (req, res) => {
    const pass = () => onRequest.forEach((listener) => listener.call(server, req, res));
    const conn = req.method === 'POST' ? io.engine.clients[sidOf(req)] : null;
    if (!conn || conn.upgraded || !holdState(conn).joined || holdState(conn).probed) return pass();
    const state = holdState(conn);
    let done = false;
    const release = (acrossUpgrade) => {
      if (done) return;
      done = true;
      if (acrossUpgrade) stats.heldAcrossUpgrade += 1;
      pass();
    };
    state.heldPosts.push(release);
    setTimeout(() => release(false), maxHold).unref();
    releaseUpgrade(state);
  });
  server.on('upgrade', (req, socket, head) => {
    const pass = () => onUpgrade.forEach((listener) => listener.call(server, req, socket, head));
    const conn = io.engine.clients[sidOf(req)];
    if (!conn) return pass();
    const state = holdState(conn);
    if (state.heldPosts.length > 0) return pass();
    let done = false;
    state.parkedUpgrade = () => {
      if (!done) pass();
      done = true;
    };
    setTimeout(() => releaseUpgrade(state), maxHold).unref();
  });
  io.engine.on('connection', (conn) => {
    const state = holdState(conn);
    conn.on('upgrading', () => {
      state.probed = true;
      // The server would release the pending poll at its next check; do it now.
      if (conn.transport.name === 'polling' && conn.transport.writable) conn.transport.send([{ type: 'noop' }]);
      releasePosts(state);
    });
  });
  io.on('connection', (socket) => {
    holdState(socket.conn).joined = true;
  });
}

let server = null;
let io = null;
let sockets = new Set();

function start(onListening) {
  server = http.createServer();
  io = new Server(server, Object.assign({ serveClient: false }, options));
  io.engine.on('connection', () => {
    stats.sessions += 1;
  });
  attach(io.of('/'));
  attach(io.of('/chat'));
  io.of('/refused').use((socket, next) => next(new Error('not allowed')));
  if (holdUpgrade) interpose(server, io);
  const own = new Set();
  sockets = own;
  server.on('connection', (socket) => {
    own.add(socket);
    socket.on('close', () => own.delete(socket));
  });
  server.listen(port, '127.0.0.1', () => {
    port = server.address().port;
    onListening();
  });
}

// As a kill would: connections cut without a close packet, sessions forgotten, the port
// refusing until the new server listens.
function restart(tag, downMs) {
  const old = { server, io, sockets };
  old.server.close();
  for (const socket of old.sockets) socket.destroy();
  old.io.close();
  setTimeout(() => start(() => console.log(`RESTARTED ${tag}`)), downMs);
}

start(() => console.log(`PORT ${port}`));

const lines = require('readline').createInterface({ input: process.stdin });
lines.on('line', (line) => {
  const [command, nsp, name, ...rest] = line.split(' ');
  if (command === 'emit') io.of(nsp).emit(name, ...JSON.parse(rest.join(' ') || '[]'));
  else if (command === 'restart') restart(nsp, Number(name) || 0);
  else if (command === 'stats') console.log(`STATS ${nsp} ${JSON.stringify(stats)}`);
});
function stop() {
  io.close();
  process.exit(0);
}
lines.on('close', stop);
setTimeout(stop, lifetime).unref();

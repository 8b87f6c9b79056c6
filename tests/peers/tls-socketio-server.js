'use strict';
// A Socket.IO server over TLS on 127.0.0.1, for the trust tests.
// Usage: node tls-socketio-server.js '<json options>'
//   options: { key: path, cert: path (PEM files), lifetime: seconds (default 60), and any
//              server options (transports, ...) }
// Prints "PORT <n>" once listening, then "REQUEST <method> <transport> <attempt>" for every
// HTTP request that reaches it (an upgrade is "REQUEST UPGRADE websocket <attempt>"),
// "CONNECT / <transport> <attempt>" for every client of "/", "UPGRADE <transport> <attempt>"
// when one moves to a WebSocket, and "REFUSED ..." for a TLS connection that ends with no
// request; <attempt> is the query parameter of that name. An "echo" event's ack gets its
// arguments back. Stops by itself when stdin closes or the lifetime ends.
const fs = require('fs');
const https = require('https');
const { Server } = require('socket.io');

const options = JSON.parse(process.argv[2] || '{}');
const lifetime = (options.lifetime || 60) * 1000;
const tls = { key: fs.readFileSync(options.key), cert: fs.readFileSync(options.cert) };
delete options.key;
delete options.cert;
delete options.lifetime;

const server = https.createServer(tls);
const io = new Server(server, Object.assign({ serveClient: false }, options));

// After the Engine.IO server has taken its listeners, so that these run before them.
const seen = (request, method) => {
  request.socket.carriedRequest = true;
  const query = new URL(request.url, 'https://127.0.0.1').searchParams;
  console.log(`REQUEST ${method} ${query.get('transport')} ${query.get('attempt')}`);
};
server.prependListener('request', (request) => seen(request, request.method));
server.prependListener('upgrade', (request) => seen(request, 'UPGRADE'));
// A client that refuses the certificate leaves during the handshake, or right after it.
server.on('tlsClientError', () => console.log('REFUSED in the handshake'));
server.on('secureConnection', (socket) => {
  socket.on('close', () => socket.carriedRequest || console.log('REFUSED after the handshake'));
});

io.on('connection', (socket) => {
  const attempt = socket.handshake.query.attempt;
  console.log(`CONNECT / ${socket.conn.transport.name} ${attempt}`);
  socket.conn.on('upgrade', (transport) => console.log(`UPGRADE ${transport.name} ${attempt}`));
  socket.on('echo', (...args) => {
    const ack = typeof args[args.length - 1] === 'function' ? args.pop() : null;
    if (ack) ack(...args);
  });
});

server.listen(0, '127.0.0.1', () => console.log(`PORT ${server.address().port}`));

function stop() {
  io.close();
  process.exit(0);
}
process.stdin.on('data', () => {});
process.stdin.on('end', stop);
setTimeout(stop, lifetime).unref();

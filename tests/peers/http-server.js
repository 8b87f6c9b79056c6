'use strict';
// A plain HTTP peer on 127.0.0.1 for the HTTP client's tests.
// Usage: node http-server.js ['<json options>']   options: { lifetime: seconds (default 120) }
// Prints "PORT <n>" once listening, then "REQUEST <method> <url>" for every request. Routes:
//   /echo                    200, JSON {method, url, headers: raw [name, value, ...] in order,
//                            body, connection: a number per TCP connection}; header X-Echo: yes
//   /status/<code>           that status, body "status <code>"
//   /delay?ms=N              sends nothing for N ms, then 200 "late"
//   /trickle?count=N&ms=M    200 at once, then one byte every M ms, N bytes in all
//   /download?size=N         200, N bytes: byte i is (i * 7) % 256
//   /redirect                302 to /echo
// Stops by itself when stdin closes or the lifetime ends.
const http = require('http');

const options = JSON.parse(process.argv[2] || '{}');
const lifetime = (options.lifetime || 120) * 1000;
let connections = 0;

const server = http.createServer((request, response) => {
  console.log(`REQUEST ${request.method} ${request.url}`);
  const url = new URL(request.url, 'http://127.0.0.1');
  const number = (name, fallback) => Number(url.searchParams.get(name) || fallback);
  const chunks = [];
  request.on('data', (chunk) => chunks.push(chunk));
  request.on('end', () => {
    const body = Buffer.concat(chunks).toString('utf8');
    if (url.pathname === '/echo') {
      response.writeHead(200, { 'Content-Type': 'application/json', 'X-Echo': 'yes' });
      response.end(JSON.stringify({ method: request.method, url: request.url, headers: request.rawHeaders, body,
                                    connection: request.socket.number }));
    } else if (url.pathname.startsWith('/status/')) {
      const code = Number(url.pathname.slice('/status/'.length));
      response.writeHead(code, { 'Content-Type': 'text/plain' });
      response.end(`status ${code}`);
    } else if (url.pathname === '/delay') {
      const timer = setTimeout(() => response.end('late'), number('ms', 1000));
      response.on('close', () => clearTimeout(timer));
    } else if (url.pathname === '/trickle') {
      response.writeHead(200, { 'Content-Type': 'text/plain' });
      response.flushHeaders();
      let left = number('count', 5);
      const timer = setInterval(() => {
        left -= 1;
        if (left > 0) response.write('.');
        else { clearInterval(timer); response.end('.'); }
      }, number('ms', 400));
      response.on('close', () => clearInterval(timer));
    } else if (url.pathname === '/download') {
      const size = number('size', 1024);
      const bytes = Buffer.alloc(size);
      for (let i = 0; i < size; i++) bytes[i] = (i * 7) % 256;
      response.writeHead(200, { 'Content-Type': 'application/octet-stream', 'Content-Length': size });
      response.end(bytes);
    } else if (url.pathname === '/redirect') {
      response.writeHead(302, { Location: '/echo' });
      response.end();
    } else {
      response.writeHead(404);
      response.end('not found');
    }
  });
});
server.on('connection', (socket) => { socket.number = ++connections; });
server.keepAliveTimeout = 30000;

server.listen(0, '127.0.0.1', () => console.log(`PORT ${server.address().port}`));
process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
setTimeout(() => process.exit(0), lifetime).unref();

'use strict';
// A WebSocket peer on 127.0.0.1 for the tests and benchmarks.
// Usage: node ws-server.js '<json options>'
//   options: { deflate: false | <ws perMessageDeflate options>, tls: {key, cert} (PEM paths),
//              lifetime: seconds (default 120) }
// Prints "PORT <n>" once listening. Echoes every message, except texts that start with
// "cmd:", which drive the server:
//   cmd:close [code [reason]]     close the connection (no code: an empty close frame)
//   cmd:ping [text]               send a ping with that payload
//   cmd:fragments <n> <text>      send the text as n fragments
//   cmd:info                      answer a JSON text: the offer and the agreed extensions
//   cmd:bomb <MiB>                send one compressed binary frame of about 1 KiB per MiB
//                                 that inflates to that many MiB of zeros (deflate agreed)
//   cmd:reset                     reset the TCP connection (RST, no close frame)
// Reports on stdout: "PONG <hex>", "CLOSE <code> <reason>", "ERROR <message>".
// Stops by itself when stdin closes or the lifetime ends.
const fs = require('fs');
const http = require('http');
const https = require('https');
const zlib = require('zlib');
const { WebSocketServer } = require('ws');

const options = JSON.parse(process.argv[2] || '{}');
const lifetime = (options.lifetime || 120) * 1000;

const server = options.tls
  ? https.createServer({ key: fs.readFileSync(options.tls.key), cert: fs.readFileSync(options.tls.cert) })
  : http.createServer();
const wss = new WebSocketServer({ server, perMessageDeflate: options.deflate || false });

// Raw deflate of `mebibytes` MiB of zeros, without the final 00 00 FF FF. After the first
// sync-flushed MiB, every further MiB deflates to the same bytes, so two are computed and the
// second is repeated: a GiB costs a few milliseconds instead of seconds.
function zeroBomb(mebibytes, done) {
  const deflater = zlib.createDeflateRaw({ level: 9 });
  const zero = Buffer.alloc(1 << 20);
  const pieces = [];
  let current = [];
  deflater.on('data', (chunk) => current.push(chunk));
  const step = () => {
    deflater.write(zero);
    deflater.flush(zlib.constants.Z_SYNC_FLUSH, () => {
      pieces.push(Buffer.concat(current));
      current = [];
      if (pieces.length < Math.min(2, mebibytes)) return step();
      deflater.close();
      const body = Buffer.concat([pieces[0], ...Array(Math.max(0, mebibytes - 1)).fill(pieces[pieces.length - 1])]);
      done(body.subarray(0, body.length - 4));
    });
  };
  step();
}

// A frame written past the library, so that its bytes are exactly ours: FIN, RSV1, binary.
function compressedBinaryFrame(payload) {
  const head = Buffer.alloc(10);
  head[0] = 0xC2;
  head[1] = 127;
  head.writeBigUInt64BE(BigInt(payload.length), 2);
  return Buffer.concat([head, payload]);
}

function send(ws, data, extra) {
  ws.send(data, extra || {});
}

wss.on('connection', (ws, request) => {
  ws.on('pong', (data) => console.log(`PONG ${data.toString('hex')}`));
  ws.on('close', (code, reason) => console.log(`CLOSE ${code} ${reason.toString()}`));
  ws.on('error', (error) => console.log(`ERROR ${error.message}`));
  ws.on('message', (data, isBinary) => {
    if (!isBinary && data.length >= 4 && data.subarray(0, 4).toString() === 'cmd:') {
      const words = data.toString().slice(4).split(' ');
      const command = words[0];
      if (command === 'close') {
        if (words.length > 1) ws.close(Number(words[1]), words.slice(2).join(' '));
        else ws.close();
      } else if (command === 'ping') {
        ws.ping(words.slice(1).join(' '));
      } else if (command === 'fragments') {
        const count = Number(words[1]);
        const text = words.slice(2).join(' ');
        const size = Math.ceil(text.length / count);
        for (let i = 0; i < count; i++) {
          send(ws, text.slice(i * size, (i + 1) * size), { fin: i === count - 1 });
        }
      } else if (command === 'bomb') {
        zeroBomb(Number(words[1]), (payload) => {
          ws._socket.write(compressedBinaryFrame(payload));
          console.log(`BOMB ${payload.length}`);
        });
      } else if (command === 'reset') {
        ws._socket.resetAndDestroy();
        console.log('RESET');
      } else if (command === 'info') {
        send(ws, JSON.stringify({ offer: request.headers['sec-websocket-extensions'] || null,
                                  agreed: ws.extensions, host: request.headers.host,
                                  origin: request.headers.origin || null }));
      }
      return;
    }
    send(ws, data, { binary: isBinary });
  });
});

server.listen(0, '127.0.0.1', () => console.log(`PORT ${server.address().port}`));
process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
setTimeout(() => process.exit(0), lifetime).unref();

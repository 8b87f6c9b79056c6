'use strict';
// A TCP peer on 127.0.0.1 that answers a WebSocket upgrade the way a scenario says, including
// what a correct server never sends.
// Usage: node raw-server.js <scenario> [lifetime seconds]
// Prints "PORT <n>", then for each frame the client sends "FRAME <fin> <rsv> <opcode> <hex>"
// (payload unmasked), "UNMASKED" for a client frame without a mask, and "END" when the
// client closes. Stops by itself when stdin closes or the lifetime ends.
const crypto = require('crypto');
const net = require('net');

const scenario = process.argv[2];
const lifetime = Number(process.argv[3] || 60) * 1000;

function accept(key) {
  return crypto.createHash('sha1').update(key + '258EAFA5-E914-47DA-95CA-C5AB0DC85B11').digest('base64');
}

function frame(first, payload, second) {
  const body = Buffer.from(payload);
  const length = body.length;
  let head;
  if (second !== undefined) head = Buffer.from([first, second]);
  else if (length < 126) head = Buffer.from([first, length]);
  else if (length < 65536) { head = Buffer.alloc(4); head[0] = first; head[1] = 126; head.writeUInt16BE(length, 2); }
  else { head = Buffer.alloc(10); head[0] = first; head[1] = 127; head.writeBigUInt64BE(BigInt(length), 2); }
  return Buffer.concat([head, body]);
}

function closePayload(code, reason) {
  const b = Buffer.alloc(2);
  b.writeUInt16BE(code, 0);
  return Buffer.concat([b, Buffer.from(reason || '')]);
}

function upgrade(key, lines) {
  return Buffer.from(['HTTP/1.1 101 Switching Protocols', 'Upgrade: websocket', 'Connection: Upgrade',
                      ...lines(key), '', ''].join('\r\n'));
}
const goodAccept = (key) => [`Sec-WebSocket-Accept: ${accept(key)}`];

// Each scenario gets the socket and the client's key once the request has arrived.
const scenarios = {
  'frames-with-upgrade': (s, key) => s.write(Buffer.concat([upgrade(key, goodAccept), frame(0x81, 'hello'), frame(0x82, [1, 2, 3])])),
  'split-header': (s, key) => {
    const whole = upgrade(key, goodAccept);
    s.write(whole.subarray(0, whole.length - 1));
    setTimeout(() => s.write(Buffer.concat([whole.subarray(whole.length - 1), frame(0x81, 'lost')])), 150);
    setTimeout(() => s.write(frame(0x81, 'after')), 300);
  },
  'status-403': (s) => s.write('HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\nX-Reason: no\r\n\r\n'),
  'no-accept': (s, key) => s.write(Buffer.concat([upgrade(key, () => []), frame(0x81, 'open')])),
  'wrong-accept': (s, key) => s.write(upgrade(key, () => ['Sec-WebSocket-Accept: AAAAAAAAAAAAAAAAAAAAAAAAAAA='])),
  'lowercase-accept': (s, key) => s.write(Buffer.concat([upgrade(key, () => ['sec-websocket-accept: wrong']), frame(0x81, 'open')])),
  'masked-frame': (s, key) => s.write(Buffer.concat([upgrade(key, goodAccept), Buffer.from([0x81, 0x82, 1, 2, 3, 4, 0x69 ^ 1, 0x69 ^ 2])])),
  'rsv-frame': (s, key) => s.write(Buffer.concat([upgrade(key, goodAccept), frame(0xA1, 'x')])),
  'oversized-control': (s, key) => s.write(Buffer.concat([upgrade(key, goodAccept), frame(0x89, Buffer.alloc(126, 0x61))])),
  'fragmented-control': (s, key) => s.write(Buffer.concat([upgrade(key, goodAccept), frame(0x09, 'p')])),
  'unknown-opcode': (s, key) => s.write(Buffer.concat([upgrade(key, goodAccept), frame(0x83, 'x')])),
  'close-one-byte': (s, key) => s.write(Buffer.concat([upgrade(key, goodAccept), frame(0x88, [0x03])])),
  'close-1005': (s, key) => s.write(Buffer.concat([upgrade(key, goodAccept), frame(0x88, closePayload(1005, 'odd'))])),
  'close-3000': (s, key) => s.write(Buffer.concat([upgrade(key, goodAccept), frame(0x88, closePayload(3000, 'app'))])),
  'invalid-utf8': (s, key) => s.write(Buffer.concat([upgrade(key, goodAccept), frame(0x81, [0x61, 0xff, 0x62])])),
  'mid-frame-close': (s, key) => {
    s.write(Buffer.concat([upgrade(key, goodAccept), frame(0x82, Buffer.alloc(300, 7)).subarray(0, 100)]));
    setTimeout(() => s.end(), 100);
  },
  'silent': () => {},
};

const server = net.createServer((socket) => {
  let request = Buffer.alloc(0);
  let upgraded = false;
  let pending = Buffer.alloc(0);
  socket.on('data', (chunk) => {
    if (!upgraded) {
      request = Buffer.concat([request, chunk]);
      const end = request.indexOf('\r\n\r\n');
      if (end < 0) return;
      upgraded = true;
      const text = request.subarray(0, end).toString();
      const key = (/^sec-websocket-key:\s*(.*)$/im.exec(text) || [])[1] || '';
      pending = request.subarray(end + 4);
      scenarios[scenario](socket, key.trim());
    } else {
      pending = Buffer.concat([pending, chunk]);
    }
    while (pending.length >= 2) {
      const fin = pending[0] >> 7, rsv = (pending[0] >> 4) & 7, opcode = pending[0] & 15;
      const masked = pending[1] >> 7;
      let length = pending[1] & 127, offset = 2;
      if (length === 126) { if (pending.length < 4) return; length = pending.readUInt16BE(2); offset = 4; }
      else if (length === 127) { if (pending.length < 10) return; length = Number(pending.readBigUInt64BE(2)); offset = 10; }
      const mask = masked ? pending.subarray(offset, offset + 4) : null;
      if (masked) offset += 4;
      if (pending.length < offset + length) return;
      const payload = Buffer.from(pending.subarray(offset, offset + length));
      if (mask) for (let i = 0; i < payload.length; i++) payload[i] ^= mask[i % 4];
      else console.log('UNMASKED');
      console.log(`FRAME ${fin} ${rsv} ${opcode} ${payload.toString('hex')}`);
      pending = pending.subarray(offset + length);
    }
  });
  socket.on('end', () => console.log('END'));
  socket.on('error', () => {});
});

if (!scenarios[scenario]) {
  console.error(`unknown scenario ${scenario}`);
  process.exit(2);
}
server.listen(0, '127.0.0.1', () => console.log(`PORT ${server.address().port}`));
process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
setTimeout(() => process.exit(0), lifetime).unref();

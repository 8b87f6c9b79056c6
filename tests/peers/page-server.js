'use strict';
// Test pages for the browser tests on 127.0.0.1.
// Usage: node page-server.js ['<json options>']   options: { lifetime: seconds (default 120) }
// Prints "PORT <n>" once listening, "REQUEST <method> <path> <json cookie header or null>" for
// every request, and "REPORT <body>" for every POST to /report. Routes:
//   /bridge        posts every bridge event but the two that end a transaction, each with a
//                  body, collects the iosCallback answers, reports what it posted and what it
//                  received, then posts "success"
//   /nav           a page with a new-window link (#blank) and an app hand-off link (#handoff)
//   /set-cookie    200, sets the cookie wipe=me
//   /check         200, a page
//   /redirect      302 to /check
//   /hang          never answers
//   /report        POST: prints the body
//   /bench         run(n) posts "isEventSupported" n + 1 times, each after the previous answer's
//                  iosCallback, then "success"
// Stops by itself when stdin closes or the lifetime ends.
const http = require('http');

const options = JSON.parse(process.argv[2] || '{}');
const lifetime = (options.lifetime || 120) * 1000;

const answered = [
  'isEventSupported', 'checkBiometric', 'registerBiometric', 'verifyBiometric', 'registerAshield',
  'authenticateAshield', 'registerFido', 'signFido', 'getFcmToken', 'isJsFidoSupported', 'registerSilentBinding',
  'verifySilentBinding', 'readDeviceDetails', 'copyToClipboard', 'registerIproov', 'verifyIproov',
  'getCurrentNetwork', 'loadSekuraSessionUrl', 'isCustomSchemeRegisteredOnApp',
];

// Each body differs, and together they carry every kind of JSON value.
function body(name, index) {
  return { event: name, index, text: `t\u00e9xt "${index}" \\ \n`, list: [index, true, null, 1.5, 'x'],
           nested: { deep: { value: -index } } };
}

function bridgePage() {
  return `<!doctype html><html><head><meta charset="utf-8"><title>bridge</title></head><body><script>
const answered = ${JSON.stringify(answered)};
const posted = answered.map((name, index) => ({ name, body: (${body.toString()})(name, index) }));
const received = [];
window.iosCallback = function (name, value) {
  received.push({ name, type: typeof value, isArray: Array.isArray(value), value });
  if (received.length === posted.length) {
    fetch('/report', { method: 'POST', body: JSON.stringify({ posted, received }) }).then(() => {
      window.webkit.messageHandlers.success.postMessage({ done: true });
    });
  }
};
for (const message of posted) window.webkit.messageHandlers[message.name].postMessage(message.body);
</script></body></html>`;
}

function navPage() {
  const handoff = 'uaepass://open?successurl=' + encodeURIComponent('http://127.0.0.1/ok') +
                  '&failureurl=' + encodeURIComponent('http://127.0.0.1/no');
  return `<!doctype html><html><head><meta charset="utf-8"><title>nav</title></head><body>
<a id="blank" href="/blank-target" target="_blank">new window</a>
<a id="handoff" href="${handoff}">hand-off</a>
<script>fetch('/report', { method: 'POST', body: JSON.stringify({ loaded: location.pathname }) });</script>
</body></html>`;
}

const benchPage = `<!doctype html><html><head><meta charset="utf-8"><title>bench</title></head><body><script>
let left = 0;
window.iosCallback = function (name, value) {
  if (typeof value !== 'object') return;
  if (left-- > 0) window.webkit.messageHandlers.isEventSupported.postMessage({ left });
  else window.webkit.messageHandlers.success.postMessage({});
};
window.run = function (n) { left = n; window.webkit.messageHandlers.isEventSupported.postMessage({ left }); return true; };
</script></body></html>`;

const page = (response, html, headers = {}) => {
  response.writeHead(200, Object.assign({ 'Content-Type': 'text/html; charset=utf-8' }, headers));
  response.end(html);
};

const server = http.createServer((request, response) => {
  const url = new URL(request.url, 'http://127.0.0.1');
  console.log(`REQUEST ${request.method} ${url.pathname} ${JSON.stringify(request.headers.cookie || null)}`);
  const chunks = [];
  request.on('data', (chunk) => chunks.push(chunk));
  request.on('end', () => {
    if (url.pathname === '/bridge') page(response, bridgePage());
    else if (url.pathname === '/nav') page(response, navPage());
    else if (url.pathname === '/bench') page(response, benchPage);
    else if (url.pathname === '/set-cookie') page(response, '<p>set</p>', { 'Set-Cookie': 'wipe=me; Max-Age=3600; Path=/' });
    else if (url.pathname === '/check') page(response, '<p>check</p>');
    else if (url.pathname === '/redirect') { response.writeHead(302, { Location: '/check' }); response.end(); }
    else if (url.pathname === '/hang') { /* never answers */ }
    else if (url.pathname === '/report') {
      console.log(`REPORT ${Buffer.concat(chunks).toString('utf8')}`);
      response.writeHead(204);
      response.end();
    } else { response.writeHead(404); response.end('not found'); }
  });
});

server.listen(0, '127.0.0.1', () => console.log(`PORT ${server.address().port}`));
process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
setTimeout(() => process.exit(0), lifetime).unref();

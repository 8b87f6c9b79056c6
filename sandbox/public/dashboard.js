'use strict';
// The dashboard: each transaction as the library and the page reported it, and a live log of
// the requests and socket events the sandbox saw, kept current through server-sent events.
(function () {
  const $ = (id) => document.getElementById(id);
  const transactions = new Map();
  const SHOWN_LOG = 500;

  function element(tag, className, text) {
    const node = document.createElement(tag);
    if (className) node.className = className;
    if (text !== undefined) node.textContent = text;
    return node;
  }
  const time = (iso) => (iso ? iso.slice(11, 19) : '–');
  const chip = (text, kind) => element('span', `badge ${kind || ''}`, text);

  function facts(rows) {
    const list = element('dl', 'facts');
    for (const [name, value] of rows) {
      const cell = element('dd');
      if (Array.isArray(value)) {
        cell.className = 'chips';
        if (value.length === 0) cell.textContent = 'none';
        cell.append(...value);
      } else if (value instanceof Node) {
        cell.append(value);
      } else {
        cell.textContent = String(value);
      }
      list.append(element('dt', null, name), cell);
    }
    return list;
  }

  const STATUS_KINDS = { started: 'info', completed: 'ok', userClosed: 'bad', connectionReset: 'bad' };
  const STEP_KINDS = { passed: 'ok', failed: 'bad', info: 'info', running: 'running' };

  function verdictChip(verdict, verified = 'verified by the sandbox') {
    if (!verdict) return chip('not checked');
    return verdict.verified ? chip(verified, 'ok') : chip(`not verified: ${verdict.reason}`, 'bad');
  }

  function transactionCard(record) {
    const card = element('article', `card tx${location.hash === `#${record.id}` ? ' selected' : ''}`);
    card.id = record.id;
    const head = element('div', 'tx-head');
    const outcome = record.outcome
      ? chip(record.outcome.outcome, record.outcome.outcome === 'success' ? 'ok' : 'bad') : chip('no outcome yet');
    head.append(element('code', 'step-name', record.id), outcome);
    const { options } = record;
    const settings = [chip(options.mode)];
    if (options.auto) settings.push(chip('auto'));
    if (options.fail) settings.push(chip('fail', 'bad'));
    if (options.refuseSocket) settings.push(chip('refuse socket', 'bad'));
    const page = element('a', null, options.action ? options.action : `/verify/${record.id}`);
    page.href = options.action || `/verify/${record.id}`;
    card.append(head, facts([
      ['options', settings],
      ['request id', record.requestId],
      ['auth req id', record.authReqId],
      ['created', time(record.createdAt)],
      ['status reports', record.statuses.map((s) => chip(`${s.name} ${s.status} · ${time(s.at)}`, STATUS_KINDS[s.name]))],
      ['sockets', record.sockets.map((s) => (s.refused
        ? chip(`refused ${time(s.at)}: ${s.reason}`, 'bad')
        : chip(`chatcode ${s.chatcode} · ${s.transport} · ${time(s.connectedAt)}–${s.disconnectedAt ? time(s.disconnectedAt) : 'open'}`,
          s.disconnectedAt ? '' : 'ok')))],
      ['page', page],
      ['page loads', `${record.pageLoads} (returns ${record.returnLoads})`],
      ['steps', record.steps.map((s) => chip(s.title || s.event, STEP_KINDS[s.status]))],
      ['biometric', verdictChip(record.biometric)],
      ['silent binding', verdictChip(record.binding)],
      ['passkey', [
        verdictChip(record.fido.registration, 'registration verified'),
        verdictChip(record.fido.authentication, record.fido.authentication
          ? `assertion verified, counter ${record.fido.authentication.counterBefore} → ${record.fido.authentication.counter}` : ''),
      ]],
      ['Sekura loads', record.sekuraLoads],
      ['result', record.resultEmitted ? chip(`emitted ${record.requestId}`, 'ok') : 'not emitted'],
    ]));
    return card;
  }

  function renderTransactions() {
    const records = [...transactions.values()].sort((a, b) => b.createdAt.localeCompare(a.createdAt));
    const box = $('transactions');
    if (records.length === 0) return;
    box.replaceChildren(...records.map(transactionCard));
  }

  function logItem(entry) {
    const item = element('li');
    item.append(element('span', 'when', entry.at.slice(11, 23)));
    if (entry.kind === 'socket') {
      item.append(element('span', 'what', `SOCKET ${entry.event}`), document.createTextNode(` ${entry.chatcode || ''}`));
      const extra = Object.entries(entry).filter(([key]) => !['at', 'kind', 'event', 'chatcode'].includes(key))
        .map(([key, value]) => `${key}: ${value}`).join(' · ');
      if (extra) item.append(element('span', 'extra', extra));
    } else {
      item.append(element('span', 'what', `${entry.method} ${entry.path}`), document.createTextNode(' '),
                  chip(String(entry.status), entry.status < 300 ? 'ok' : 'bad'));
      const headers = Object.entries(entry.headers).map(([name, value]) => `${name}: ${value}`).join(' · ');
      if (headers) item.append(element('span', 'extra', headers));
      if (entry.body) item.append(element('span', 'extra', entry.body));
      if (entry.note) item.append(element('span', 'extra', entry.note));
    }
    return item;
  }

  function addLog(entry) {
    const log = $('log');
    log.prepend(logItem(entry));
    while (log.children.length > SHOWN_LOG) log.lastChild.remove();
  }

  async function getJson(url) {
    const response = await fetch(url);
    return response.json();
  }

  async function load() {
    for (const record of await getJson('/api/transactions')) transactions.set(record.id, record);
    renderTransactions();
    (await getJson('/api/log')).slice(-SHOWN_LOG).forEach(addLog);
    $('store').textContent = (await getJson('/api/store')).version || 'none';
    const events = new EventSource('/api/events');
    events.addEventListener('open', () => { $('live').textContent = 'live'; $('live').className = 'badge ok'; });
    events.addEventListener('error', () => { $('live').textContent = 'reconnecting'; $('live').className = 'badge bad'; });
    events.addEventListener('transaction', (event) => {
      const record = JSON.parse(event.data);
      transactions.set(record.id, record);
      renderTransactions();
    });
    events.addEventListener('log', (event) => addLog(JSON.parse(event.data)));
    events.addEventListener('store', (event) => { $('store').textContent = JSON.parse(event.data).version || 'none'; });
  }

  $('mint').addEventListener('submit', async (event) => {
    event.preventDefault();
    const form = event.target;
    const options = { auto: form.auto.checked, mode: form.mode.value, fail: form.fail.checked, refuseSocket: form.refuseSocket.checked };
    const response = await fetch('/api/transactions', { method: 'POST', headers: { 'Content-Type': 'application/json' },
                                                         body: JSON.stringify(options) });
    const answer = await response.json();
    $('minted').hidden = false;
    $('minted').open = true;
    $('minted').querySelector('pre').textContent = JSON.stringify(answer, null, 2);
    if (answer.id) location.hash = answer.id;
  });
  window.addEventListener('hashchange', renderTransactions);
  load();
})();

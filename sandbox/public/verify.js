'use strict';
// The sandbox's verification page. It runs the transaction's steps through the page kit, shows
// every answer, reports the outcome to the sandbox, waits for its answer, and only then ends the
// transaction in the host with "success" or "failure".
(function () {
  const config = JSON.parse(document.getElementById('page-config').textContent);
  const bridge = window.KelvaneBridge;
  const auto = new URLSearchParams(location.search).get('auto') === '1';
  const api = `/api/transactions/${encodeURIComponent(config.id)}`;
  const $ = (id) => document.getElementById(id);

  // The kit's sample bodies, with this transaction's key, challenge and addresses.
  const bodies = Object.assign({}, bridge.samples, {
    registerSilentBinding: { remotePublicKey: config.binding.remotePublicKey },
    verifySilentBinding: { challenge: config.binding.challenge },
    copyToClipboard: { text: `Kelvane sandbox ${config.id}` },
    loadSekuraSessionUrl: { url: config.sekuraUrl },
  });

  const short = (text) => (text.length > 16 ? `${text.slice(0, 16)}…` : text);

  // ---- The steps ----

  async function checkBinding(answer) {
    if (answer.success !== true) return answer.message || 'the device did not answer the challenge';
    const sealed = steps.find((step) => step.event === 'registerSilentBinding').answer;
    const verdict = await postJson(`${api}/binding`, {
      encryptedDeviceId: sealed.encryptedDeviceId,
      challengeHash: answer.challengeHash,
      keyHashFirst6: answer.keyHashFirst6,
    });
    return verdict.verified ? null : `not verified by the sandbox (${verdict.reason})`;
  }

  // Asks the sandbox, as the relying party, for WebAuthn options; the kit turns them into the body.
  async function fidoBody(kind) {
    const options = await postJson(`${api}/fido/${kind}/options`, {});
    return kind === 'registration' ? bridge.fidoRegistrationBody(options) : bridge.fidoAuthenticationBody(options);
  }

  // The relying party verifies the credential the host answered with.
  function fidoCheck(kind) {
    return async (answer) => {
      if (answer.success !== true || !answer.data) return answer.message || 'the host made no credential';
      const verdict = await postJson(`${api}/fido/${kind}`, answer.data);
      return verdict.verified ? null : `not verified by the sandbox (${verdict.reason})`;
    };
  }

  async function checkBiometric(answer) {
    if (answer.success !== true) return answer.message || 'the device owner did not authenticate';
    const verdict = await postJson(`${api}/biometric`, {
      encryptedChallenge: answer.encryptedChallenge || '', credentialId: answer.credentialId || '',
    });
    return verdict.verified ? null : `not verified by the sandbox (${verdict.reason})`;
  }

  const OWNER_HINT = 'The host asks for the device owner\'s password.';

  function verifyPlan() {
    const plan = [
      { event: 'isEventSupported', must: true,
        check: (a) => {
          const missing = bridge.events.filter((name) => !(a.supportedEvents || []).includes(name));
          return missing.length ? `the host does not list ${missing.join(', ')}` : null;
        },
        explain: (a) => `all ${a.supportedEvents.length} events supported` },
      { event: 'checkBiometric',
        explain: (a) => (a.registered ? 'a biometric key is registered' : 'no biometric key registered yet') },
      { event: 'registerBiometric', must: true, timeout: 120000, hint: OWNER_HINT,
        body: () => ({ publicKey: config.biometric.publicKey, credentialId: config.biometric.credentialId }),
        check: (a) => (a.success === true ? null : a.message || 'not registered'),
        explain: () => 'device owner authenticated; the sandbox key is registered' },
      { event: 'verifyBiometric', must: true, timeout: 120000, hint: OWNER_HINT,
        body: () => ({ challenge: config.biometric.challenge }), check: checkBiometric,
        explain: () => 'challenge sealed after the owner authenticated; verified by the sandbox' },
      { event: 'registerSilentBinding', must: true,
        check: (a) => (a.success === true && a.encryptedDeviceId ? null : a.message || 'no encryptedDeviceId'),
        explain: () => 'device secret sealed with the sandbox key' },
      { event: 'verifySilentBinding', must: true, check: checkBinding, explain: () => 'verified by the sandbox' },
      { event: 'getCurrentNetwork', explain: (a) => `connectivity: ${a.connectivity}` },
      { event: 'readDeviceDetails', timeout: 120000,
        hint: 'The host may first ask about location access: answer its dialog.',
        explain: (a) => (a.success ? `location ${a.location.lat}, ${a.location.long}` : a.message) },
      { event: 'copyToClipboard', must: true, check: (a) => (a.success === true ? null : a.message || 'not copied'),
        explain: () => 'copied to the clipboard' },
      { event: 'getFcmToken', must: true, check: (a) => (typeof a.pushToken === 'string' ? null : 'no push token'),
        explain: (a) => `${a.pushType} token ${short(a.pushToken)}` },
      { event: 'registerFido', must: true, timeout: 120000, body: () => fidoBody('registration'),
        check: fidoCheck('registration'), explain: () => 'passkey registered; attestation verified by the sandbox' },
      { event: 'signFido', must: true, timeout: 120000, body: () => fidoBody('authentication'),
        check: fidoCheck('authentication'), explain: () => 'assertion verified by the sandbox against the registered key' },
      { event: 'registerIproov', must: true, timeout: 120000, body: () => config.face,
        check: (a) => (a.success === true ? null : a.error || 'the face session failed'),
        explain: (a) => a.message },
      { event: 'loadSekuraSessionUrl', must: true,
        check: (a) => (a.success === true && a.result && a.result.status_code === 200 ? null
          : `the Sekura session answered ${a.result ? a.result.status_code : a.message}`),
        explain: (a) => `Sekura session loaded (status ${a.result.status_code})` },
    ];
    if (config.handoffUrl) {
      plan.push({ title: 'App-to-app hand-off', must: true, run: handOff,
                  hint: 'The page opens the other app, which returns to this page.' });
    }
    return plan;
  }

  // A line about any answer: its success, message and error codes where it has them.
  function gist(answer) {
    const parts = [];
    if ('success' in answer) parts.push(`success ${answer.success}`);
    if (answer.message) parts.push(answer.message);
    const codes = [].concat(answer.errorCodes || [], answer.error || []).filter(Boolean);
    if (codes.length) parts.push(codes.join(', '));
    return parts.length ? parts.join(' · ') : 'answered';
  }

  function playgroundPlan() {
    return bridge.events.filter((name) => bridge.contract[name].answers)
      .map((event) => ({ event, explain: gist, timeout: event === 'readDeviceDetails' ? 120000 : undefined }));
  }

  const plan = config.mode === 'playground' ? playgroundPlan() : verifyPlan();
  let steps = config.returned ? config.steps : plan.map((definition) => ({
    event: definition.event, title: definition.title || definition.event, must: Boolean(definition.must),
    status: 'pending', note: definition.hint || '',
  }));

  async function runStep(definition, step) {
    step.status = 'running';
    render();
    try {
      if (definition.run) {
        await definition.run(step);
      } else {
        step.sent = definition.body ? await definition.body() : bodies[definition.event];
        step.answer = await bridge.call(definition.event, step.sent, { timeout: definition.timeout });
        const problem = definition.check ? await definition.check(step.answer) : null;
        step.status = problem ? 'failed' : step.must ? 'passed' : 'info';
        step.note = problem || (definition.explain ? definition.explain(step.answer) : 'answered');
      }
    } catch (error) {
      step.error = { code: error.code || 'error', message: error.message };
      step.status = step.must ? 'failed' : 'info';
      step.note = error.message;
    }
    render();
    await saveSteps();
    return step.status !== 'failed';
  }

  // Leaves for the other app; the return page carries on from the saved steps.
  async function handOff(step) {
    step.note = 'waiting for the other app to return to this page…';
    step.sent = { url: config.handoffUrl };
    await saveSteps();
    location.href = config.handoffUrl;
    return new Promise(() => {});
  }

  async function run() {
    $('start').disabled = true;
    let passed = true;
    for (let i = 0; i < plan.length && passed; i++) passed = await runStep(plan[i], steps[i]);
    for (const step of steps) {
      if (step.status === 'pending') Object.assign(step, { status: 'skipped', note: 'not run after a failed step' });
    }
    await finish(passed);
  }

  function resumeAfterReturn() {
    const handOffStep = steps[steps.length - 1];
    const back = config.returned === 'success';
    Object.assign(handOffStep, { status: back ? 'passed' : 'failed',
                                 note: back ? 'the other app returned to the success address' : 'the other app returned to the failure address' });
    const passed = back && steps.every((step) => step.status !== 'failed');
    saveSteps().then(() => finish(passed));
  }

  async function finish(passed) {
    let outcome = passed ? 'success' : 'failure';
    const report = { title: 'Report to the sandbox', must: true, status: 'running', sent: { outcome } };
    const done = steps.slice();
    steps.push(report);
    render();
    try {
      report.answer = await postJson(`${api}/outcome`, { outcome, steps: done });
      report.status = 'passed';
      report.note = report.answer.emitted ? `result sent on the status socket as "${report.answer.event}"` : 'failure recorded';
    } catch (error) {
      Object.assign(report, { status: 'failed', note: error.message, error: { code: error.status, message: error.message } });
      outcome = 'failure';
    }
    const end = { event: outcome, title: outcome, must: true, status: 'running' };
    steps.push(end);
    // The verdict shows before the end event: the host closes the page as soon as it gets it.
    const required = done.filter((step) => step.must);
    const held = required.filter((step) => step.status === 'passed').length;
    $('summary').textContent = `${outcome === 'success' ? 'Verification complete' : 'Verification failed'}: ` +
      `${held} of ${required.length} required steps passed; posting "${outcome}".`;
    $('summary').className = `summary ${outcome}`;
    render();
    window.scrollTo(0, 0);
    await painted();
    try {
      await bridge[outcome]();
      Object.assign(end, { status: 'passed', note: `posted "${outcome}"; the host closes this page` });
    } catch (error) {
      Object.assign(end, { status: 'failed', note: error.message, error: { code: error.code, message: error.message } });
    }
    render();
  }

  // Two animation frames and a moment, so that the verdict is on screen (and in a host's
  // screenshot) before the host takes the page away.
  function painted() {
    return new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(() => setTimeout(resolve, 250))));
  }

  async function postJson(url, body) {
    const response = await fetch(url, { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body) });
    const answer = await response.json().catch(() => ({}));
    if (!response.ok) {
      const error = new Error(answer.error || `the sandbox answered ${response.status}`);
      error.status = response.status;
      throw error;
    }
    return answer;
  }

  function saveSteps() {
    return postJson(`${api}/steps`, { steps }).catch(() => {});
  }

  // ---- Showing it ----

  function element(tag, className, text) {
    const node = document.createElement(tag);
    if (className) node.className = className;
    if (text !== undefined) node.textContent = text;
    return node;
  }

  function folded(summary, value) {
    const details = element('details');
    details.append(element('summary', null, summary), element('pre', null, JSON.stringify(value, null, 2)));
    return details;
  }

  const BADGES = { pending: 'waiting', running: 'running', passed: 'passed', failed: 'failed', info: 'info', skipped: 'skipped' };

  function render() {
    const list = $('steps');
    list.replaceChildren(...steps.map((step) => {
      const item = element('li', `step ${step.status}`);
      const head = element('div', 'step-head');
      head.append(element('code', 'step-name', step.title), element('span', `badge ${step.status}`, BADGES[step.status]));
      item.append(head);
      const meta = element('p', 'step-note');
      meta.append(element('span', `tag ${step.must ? 'must' : 'optional'}`, step.must ? 'must pass' : 'informational'));
      if (step.note) meta.append(document.createTextNode(` ${step.note}`));
      item.append(meta);
      if (step.sent !== undefined) item.append(folded('Sent', step.sent));
      if (step.answer !== undefined) item.append(folded('Answer', step.answer));
      if (step.error !== undefined) item.append(folded('Error', step.error));
      return item;
    }));
  }

  // ---- The playground ----

  function describe(rule) {
    let text = `body.${rule.path}: ${rule.type}`;
    if (rule.items) text += ` of ${rule.items}s`;
    if (rule.format) text += `, ${rule.format}`;
    return text;
  }

  function showRules(name) {
    const entry = bridge.contract[name];
    const lines = entry.body === 'ignored' ? ['The body is ignored.'] : ['The body is an object:'].concat(entry.fields.map(describe));
    if (entry.needs) lines.push(`Call ${entry.needs} first on this device.`);
    if (entry.note) lines.push(`Note: ${entry.note}.`);
    if (!entry.answers) lines.push('This event ends the flow and has no answer.');
    $('rules').replaceChildren(...lines.map((line) => element('li', null, line)));
  }

  function fillSample() {
    const name = $('event').value;
    $('body').value = JSON.stringify(bodies[name], null, 2);
    showRules(name);
  }

  function showResult(kind, value) {
    $('result').hidden = false;
    $('result-badge').className = `badge ${kind === 'answer' ? 'passed' : 'failed'}`;
    $('result-badge').textContent = kind;
    $('result-json').textContent = JSON.stringify(value, null, 2);
  }

  function send() {
    const name = $('event').value;
    let body;
    try {
      body = $('body').value.trim() === '' ? undefined : JSON.parse($('body').value);
    } catch (error) {
      showResult('not JSON', { message: error.message });
      return;
    }
    $('result-badge').textContent = 'waiting';
    bridge.call(name, body).then(
      (answer) => showResult('answer', answer === undefined ? 'posted; no answer' : answer),
      (error) => showResult(error.code, { code: error.code, field: error.field, message: error.message }));
  }

  $('event').replaceChildren(...bridge.events.map((name) => {
    const option = element('option', null, bridge.contract[name].answers ? name : `${name} (ends the flow)`);
    option.value = name;
    return option;
  }));
  $('event').addEventListener('change', fillSample);
  $('sample').addEventListener('click', fillSample);
  $('send').addEventListener('click', send);
  fillSample();

  // ---- Start ----

  $('tx').textContent = config.id;
  $('mode').textContent = { verify: 'verification', playground: 'playground run', appToApp: 'verification with an app-to-app hand-off' }[config.mode];
  $('start').addEventListener('click', run);
  render();

  const notInHost = bridge.check('isEventSupported', {});
  if (notInHost) {
    $('notice').hidden = false;
    $('notice').className = 'notice error';
    $('notice').textContent = notInHost.message;
    $('start').disabled = true;
  } else if (config.returned) {
    $('start').hidden = true;
    resumeAfterReturn();
  } else if (config.outcome) {
    $('notice').hidden = false;
    $('notice').textContent = `This transaction's outcome was already reported: ${config.outcome.outcome}.`;
    $('start').disabled = true;
  } else if (auto) {
    $('start').hidden = true;
    run();
  }
})();

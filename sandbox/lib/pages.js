'use strict';
// The verification page: one template, with the transaction's settings embedded as JSON.
const fs = require('fs');
const path = require('path');

const TEMPLATE = path.join(__dirname, '..', 'public', 'verify.html');
const MARK = '__PAGE_CONFIG__';

function renderPage(config) {
  // "<" escaped, so that no value can close the script element that carries it.
  const json = JSON.stringify(config).replace(/</g, '\\u003c');
  return fs.readFileSync(TEMPLATE, 'utf8').replace(MARK, () => json);
}

module.exports = { renderPage };

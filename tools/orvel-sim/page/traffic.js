// The traffic: its entries, the chart, the filter, and the stream that brings everything.
'use strict';

// ---- Traffic ----

const nameOf = (entry) => entry.notification ?? entry.method ?? `transaction ${entry.code}`;

function whyFailed(entry) {
  if (entry.exception) return `exception ${entry.exception.code}: ${entry.exception.message}`;
  if ('error' in entry) return `error ${entry.error}`;
  if (entry.hangs) return 'hangs';
  if (entry.drops) return 'drops the connection';
  if ('truncatedTo' in entry) return `cut to ${entry.truncatedTo} bytes`;
  return '';
}

function faultText(entry) {
  const verb = (key) => vocabulary.faults.find((kind) => kind.key === key)?.verb ?? key;
  return (entry.faults ?? [])
      .map((fault) => `${verb(fault.fault)} ${entry.service}${fault.method === '*' ? '' : `.${fault.method}`}`)
      .join(', ');
}

const short = (text, most) => (text.length > most ? `${text.slice(0, most - 1)}…` : text);
const clientText = (entry) => `${entry.client || 'process'} ${entry.pid}`;

function entryLine(entry) {
  const given = typeof entry.arguments === 'string' ?
      entry.arguments :
      Object.values(entry.arguments).map((value) => JSON.stringify(value)).join(', ');
  const reply = 'reply' in entry && entry.reply !== null ? ` = ${JSON.stringify(entry.reply)}` : '';
  const failed = whyFailed(entry);
  const fault = faultText(entry);
  const parts = [`${clock(entry.timeMs)} ${entry.service}${entry.notification ? ' → ' : '.'}${nameOf(entry)}(${
      short(given, 80)})${short(reply, 80)}`];
  if (failed) parts.push(`✗ ${failed}`);
  if (fault) parts.push(`⚡ ${fault}`);
  if ('durationMs' in entry) parts.push(`${entry.durationMs} ms`);
  return [...parts, clientText(entry)].join(' · ');
}

function entryElement(entry) {
  const details = element(
      'details', {class: whyFailed(entry) ? 'entry failed' : 'entry', 'data-number': entry.number},
      element('summary', {}, entryLine(entry)));
  details.addEventListener('toggle', () => {
    if (details.open && details.children.length === 1)
      details.append(element('pre', {}, JSON.stringify(entry, null, 2)));
  });
  return details;
}

function showTraffic() {
  drawing = false;
  if (paused) return;
  const list = byId('entries');
  list.prepend(...fresh.map(entryElement).reverse());
  fresh = [];
  while (list.children.length > kMostEntries) list.lastChild.remove();
  byId('entries-none').hidden = list.children.length !== 0;
  byId('missed').textContent =
      missed === 0 ? '' : `${missed} entries came faster than this page takes them and are not shown.`;
  drawChart(entries.slice(-kMostCalls));
}

function drawSoon() {
  if (drawing) return;
  drawing = true;
  setTimeout(showTraffic, 30);
}

function addEntry(entry) {
  newest = Math.max(newest, entry.number);
  if (paused && fresh.length >= kMostEntries) {
    ++missed;
    return showPause();
  }
  entries.push(entry);
  if (entries.length > kMostEntries) entries.shift();
  fresh.push(entry);
  if (paused) return showPause();
  if (fresh.length > kMostEntries) fresh.shift();
  drawSoon();
}

function showPause() {
  byId('pause').textContent = paused ? `Go on (${fresh.length} new)` : 'Pause';
  byId('pause').setAttribute('aria-pressed', String(paused));
}

// ---- The chart ----

// Clients to the left, services to the right, each in the order of their coming.
function lanesOf(calls) {
  const clients = [...new Set(calls.map(clientText))];
  const services = [...new Set(calls.map((entry) => entry.service))];
  return [...clients.map((name) => ({name, key: `c ${name}`})), ...services.map((name) => ({name, key: `s ${name}`}))];
}

function drawCall(svg, entry, y, from, to) {
  const failed = whyFailed(entry);
  const kind = failed ? 'failed' : entry.notification ? 'notice' : '';
  const way = to > from ? 1 : -1;
  svg.append(
      drawn('line', {class: `call ${kind}`, x1: from, y1: y, x2: to - way * 6, y2: y}),
      drawn('path', {class: `head ${kind}`, d: `M${to} ${y} l${- way * 9} -4 v8 z`}));
  const reason = failed ? ` ✗ ${failed}` : '';
  const text = drawn(
      'text', {class: kind, x: (from + to) / 2, y: y - 5, 'text-anchor': 'middle'},
      short(`${nameOf(entry)}${reason}`, Math.max(14, Math.floor(Math.abs(to - from) / 7))));
  svg.append(text);
  if (entry.faults)
    svg.append(
        drawn('text', {class: 'mark', x: to + way * 5, y: y + 4, 'text-anchor': way > 0 ? 'start' : 'end'}, '⚡'));
}

function drawChart(calls) {
  const lanes = lanesOf(calls);
  const width = Math.max(640, 70 + lanes.length * 130);
  const height = 44 + calls.length * 27;
  const x = (key) =>
      110 + (width - 150) * (lanes.length < 2 ? 0.5 : lanes.findIndex((lane) => lane.key === key) / (lanes.length - 1));
  const svg = drawn('svg', {
    viewBox: `0 0 ${width} ${height}`,
    role: 'img',
    'aria-label': `Sequence of the newest ${calls.length} calls between ${
        lanes.length} clients and services; the table below has the same`
  });
  for (const lane of lanes) {
    svg.append(
        drawn('line', {class: 'lifeline', x1: x(lane.key), x2: x(lane.key), y1: 26, y2: height}),
        drawn('text', {class: 'lane', x: x(lane.key), y: 18, 'text-anchor': 'middle'}, short(lane.name, 18)));
  }
  calls.forEach((entry, index) => {
    const y = 54 + index * 27;
    svg.append(drawn('text', {class: 'small', x: 2, y: y + 4}, clock(entry.timeMs)));
    const ends = [x(`c ${clientText(entry)}`), x(`s ${entry.service}`)];
    if (entry.notification) ends.reverse();
    drawCall(svg, entry, y, ...ends);
  });
  byId('chart').replaceChildren(...(calls.length === 0 ? [] : [svg]));
  drawTable(calls);
}

function drawTable(calls) {
  if (!byId('chart-table').open) return;
  const row = (cell, texts) => element('tr', {}, ...texts.map((text) => element(cell, {}, text)));
  byId('table').replaceChildren(element(
      'table', {}, element('thead', {}, row('th', ['Time', 'From', 'To', 'Call', 'Result'])),
      element('tbody', {}, ...calls.map((entry) => {
        const ends = [clientText(entry), entry.service];
        if (entry.notification) ends.reverse();
        const result = [whyFailed(entry) || 'answered', faultText(entry)].filter(Boolean).join(', fault: ');
        return row('td', [clock(entry.timeMs), ...ends, nameOf(entry), result]);
      }))));
}

// ---- The filter, in the words of orvel-sim traffic ----

const names = (id) => byId(id).value.split(/[\s,]+/).filter(Boolean);
// The name of a program may have blanks in it.
const clients = () => byId('filter-client').value.split(',').map((name) => name.trim()).filter(Boolean);

function filterWords() {
  const line = ['traffic', ...names('filter-name')];
  for (const name of names('filter-not')) line.push(...option('--not', name));
  for (const name of clients()) line.push(...option('--client', name));
  if (byId('filter-slower').value !== '') line.push(...option('--slower', byId('filter-slower').value));
  if (byId('filter-failed').checked) line.push('--failed');
  if (byId('filter-faulted').checked) line.push('--faulted');
  return line;
}

function filterParameters() {
  const parameters = new URLSearchParams();
  const given = [['name', names('filter-name')], ['not', names('filter-not')], ['client', clients()]];
  for (const [parameter, values] of given)
    for (const value of values) parameters.append(parameter, value);
  if (byId('filter-slower').value !== '') parameters.set('slower', byId('filter-slower').value);
  for (const flag of ['failed', 'faulted'])
    if (byId(`filter-${flag}`).checked) parameters.set(flag, '1');
  return parameters;
}

// ---- The stream ----

let heard = Date.now();  // anything of the device

function showConnection(text, kind) {
  byId('connection').textContent = text;
  byId('connection').className = kind;
}

function showEnd(text = 'The device has ended.') {
  ended = true;
  stream?.close();
  showConnection(text, 'ended');
  for (const control of document.querySelectorAll('main button, main input, main select')) {
    if (!['pause', 'clear'].includes(control.id) && !control.closest('.command')) control.disabled = true;
  }
}

// Without an answer the stream tells nothing of why: whether anything answers at all is asked once more.
async function interrupted() {
  if (ended || !stream) return;
  stream.close();
  stream = null;
  showConnection('The stream is interrupted; trying again …', 'ended');
  try {
    const answer = await fetch('vocabulary.json');
    if (answer.status === 403)
      return showEnd('The device has ended; another one answers here. Open the address that it has printed.');
    setTimeout(() => {
      if (!stream && !ended && !document.hidden) follow(newest);
    }, kRetryMs);
  } catch {
    showEnd('The device has ended: nothing answers any more.');
  }
}

function hear() {
  heard = Date.now();
  if (byId('connection').textContent !== 'Live.') showConnection('Live.', 'good');
}

function follow(after) {
  const parameters = filterParameters();
  if (after > 0)
    parameters.set('after', after);
  else
    parameters.set('past', '200');
  stream?.close();
  heard = Date.now();
  stream = new EventSource(`events?${parameters}`);
  for (const event of ['open', 'alive', 'entry', 'missed', 'status']) stream.addEventListener(event, hear);
  stream.addEventListener('error', interrupted);
  stream.addEventListener('status', (event) => {
    status = JSON.parse(event.data);
    showStatus();
  });
  stream.addEventListener('entry', (event) => addEntry(JSON.parse(event.data)));
  stream.addEventListener('missed', (event) => {
    missed += Number(event.data);
    drawSoon();
  });
  stream.addEventListener('refused', (event) => {
    byId('filter-error').textContent = JSON.parse(event.data);
    stream.close();
    stream = null;
    showConnection('The filter is not understood; nothing is shown.', 'bad');
  });
  stream.addEventListener('ended', () => showEnd());
}

function clearTraffic() {
  entries = [];
  fresh = [];
  missed = 0;
  byId('entries').replaceChildren();
  showPause();
  drawSoon();
}

function prepareTraffic() {
  const line = commandLine(filterWords);
  byId('filter').append(line);
  let waiting = 0;
  const changed = () => {
    line.renew();
    clearTimeout(waiting);
    waiting = setTimeout(() => {
      byId('filter-error').textContent = '';
      clearTraffic();
      if (!ended) follow(0);
    }, 300);
  };
  byId('filter').addEventListener('input', changed);
  byId('filter').addEventListener('submit', (event) => event.preventDefault());
  byId('clear').addEventListener('click', clearTraffic);
  byId('pause').addEventListener('click', () => {
    paused = !paused;
    showPause();
    drawSoon();
  });
  byId('chart-table').addEventListener('toggle', () => drawTable(entries.slice(-kMostCalls)));
  // A browser has few connections to one address: a page that is not looked at gives its own back.
  document.addEventListener('visibilitychange', () => {
    if (ended) return;
    if (document.hidden) {
      stream?.close();
      stream = null;
    } else if (!stream) {
      follow(newest);
    }
  });
}

// A device that was stopped, with its connections, closes none.
function prepareSilence() {
  setInterval(() => {
    if (ended || !stream || Date.now() - heard < kMostSilenceMs) return;
    showConnection('The device is silent; it may be suspended.', 'ended');
  }, kRetryMs);
}

async function begin() {
  try {
    vocabulary = await (await fetch('vocabulary.json')).json();
  } catch {
    return showEnd('The device has ended: nothing answers any more.');
  }
  prepareFaults();
  prepareDevice();
  prepareTraffic();
  preparePresses();
  prepareSilence();
  follow(0);
}

begin();

// Draws what the device tells, and sends back nothing but verbs of the command line. Texts of the device are only ever
// set as text.
'use strict';

const byId = (id) => document.getElementById(id);
const kMostEntries = 500;  // kept, and shown
const kMostCalls = 20;     // in the chart
const kRetryMs = 1500;
const kMostPressMs = 2000;
const kMostSilenceMs = 8000;  // of a device, which tells every 5 s that it lives

let vocabulary = {program: ['orvel-sim'], services: [], faults: [], scenarios: []};
let status = null;
let stream = null;
let newest = 0;    // number of an entry
let entries = [];  // the newest last
let fresh = [];    // not shown yet
let missed = 0;
let paused = false;
let ended = false;
let drawing = false;
let pressing = false;  // between the two halves of a click

// ---- Elements ----

function element(name, properties = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(properties)) {
    if (key === 'on')
      for (const [event, call] of Object.entries(value)) made.addEventListener(event, call);
    else if (key === 'class')
      made.className = value;
    else if (key === 'value' || key === 'disabled')
      made[key] = value;
    else
      made.setAttribute(key, value);
  }
  made.append(...children);
  return made;
}

function drawn(name, attributes = {}, text = null) {
  const made = document.createElementNS('http://www.w3.org/2000/svg', name);
  for (const [key, value] of Object.entries(attributes)) made.setAttribute(key, value);
  if (text !== null) made.textContent = text;
  return made;
}

const quoted = (word) => (/^[A-Za-z0-9_./:,=@%+-]+$/.test(word) ? word : `'${word.replace(/'/g, '\'\\\'\'')}'`);
const inShell = (words) => [...vocabulary.program, ...words].map(quoted).join(' ');
const option = (name, value) => (value.startsWith('-') ? [`${name}=${value}`] : [name, value]);
const clock = (ms) => {
  const time = new Date(ms);
  return `${time.toLocaleTimeString('en-GB')}.${String(time.getMilliseconds()).padStart(3, '0')}`;
};

// The command that does the same, with a button that copies it. `words` is a function where they may change.
function commandLine(words) {
  const text = () => inShell(typeof words === 'function' ? words() : words);
  const code = element('code', {}, text());
  const copy = element(
      'button', {
        type: 'button',
        'aria-label': `Copy the command: ${text()}`,
        on: {
          click: () =>
              navigator.clipboard.writeText(code.textContent).then(() => tell('Copied.'), () => tell('Not copied.')),
        }
      },
      'Copy');
  const line = element('div', {class: 'command'}, code, copy);
  line.renew = () => {
    code.textContent = text();
    copy.setAttribute('aria-label', `Copy the command: ${text()}`);
  };
  return line;
}

// ---- What the page does: verbs ----

function tell(text, isBad = false) {
  byId('outcome').textContent = text;
  byId('outcome').className = isBad ? 'bad' : 'good';
}

// Whether it succeeded.
async function run(words) {
  try {
    const answer = await fetch(
        'verb', {method: 'POST', headers: {'Content-Type': 'application/json'}, body: JSON.stringify(words)});
    if (!answer.ok) {
      tell(`${inShell(words)}: ${(await answer.text()).trim()}`, true);
      return false;
    }
    const result = await answer.json();
    const said = (result.status === 0 ? result.out : result.err).trim().split('\n')[0];
    tell(
        `${inShell(words)}: ${result.status === 0 ? said || 'done' : said || `status ${result.status}`}`,
        result.status !== 0);
    return result.status === 0;
  } catch {
    tell(`${inShell(words)}: the device does not answer`, true);
    return false;
  }
}

function button(label, words, spoken = label) {
  return element('button', {type: 'button', 'aria-label': spoken, on: {click: () => run(words)}}, label);
}

function switchButton(isOn, label, words) {
  return element(
      'button', {
        type: 'button',
        role: 'switch',
        'aria-checked': String(isOn),
        'aria-label': label,
        on: {click: () => run(words)}
      },
      isOn ? 'ON' : 'off');
}

// ---- Status ----

const keyOf = (control) => control.dataset.key ?? control.getAttribute('aria-label') ?? control.textContent;
const isTyped = (input) => input.value !== (input.dataset.value ?? '');

// Replaces what is shown only when it has become another, and never what is being clicked. The focus, what is unfolded
// and what is being typed stay where they were: with the same control, which may stand elsewhere now.
function renew(id, key, make) {
  const place = byId(id);
  const text = JSON.stringify(key);
  if (pressing || place.dataset.shown === text) return;
  place.dataset.shown = text;
  const focus = place.contains(document.activeElement) ? keyOf(document.activeElement) : null;
  const open = new Map([...place.querySelectorAll('summary')].map((each) => [keyOf(each), each.parentElement.open]));
  const typed = new Map([...place.querySelectorAll('input')].filter(isTyped).map((each) => [keyOf(each), each]));
  place.replaceChildren(...make());
  for (const each of place.querySelectorAll('summary'))
    if (open.has(keyOf(each))) each.parentElement.open = open.get(keyOf(each));
  for (const each of place.querySelectorAll('input')) {
    if (!typed.has(keyOf(each))) continue;
    each.value = typed.get(keyOf(each)).value;
    each.dispatchEvent(new Event('input'));
  }
  if (focus === null) return;
  const kept = [...place.querySelectorAll('button, input, select, summary')].find((each) => keyOf(each) === focus);
  (kept ?? place.closest('section').querySelector('h2')).focus();
  if (kept && typed.has(focus)) kept.setSelectionRange(typed.get(focus).selectionStart, typed.get(focus).selectionEnd);
}

function preparePresses() {
  let patience = 0;
  const released = () => {
    clearTimeout(patience);
    pressing = false;
    if (status) showStatus();
  };
  document.addEventListener('pointerdown', (event) => {
    if (!event.target.closest('button, summary')) return;
    pressing = true;
    patience = setTimeout(released, kMostPressMs);
  }, true);
  // The click follows them.
  for (const event of ['pointerup', 'pointercancel'])
    document.addEventListener(event, () => pressing && setTimeout(released), true);
}

function showServices() {
  renew('services-list', status.services, () => status.services.map((service) => {
    const name = service.service;
    const alive = service.pid !== 0;
    const flaps = service.flap ? `, dies every ${service.flap.periodMs} ms` : '';
    const since = service.sinceMs ? ` since ${clock(service.sinceMs).slice(0, 8)}` : '';
    const state = alive ? `alive${since}, life ${service.epoch}, process ${service.pid}` : `dead${since}`;
    const verbs = alive ? [['Kill', ['kill', name]], ['Restart', ['restart', name]]] : [['Restart', ['restart', name]]];
    if (service.flap) verbs.unshift(['End the flapping', ['flap', name, 'off']]);
    return element(
        'li', {},
        element(
            'div', {class: 'row'},
            element(
                'span', {class: 'grow'}, element('strong', {}, name), ' ',
                element('span', {class: alive ? 'good' : 'bad'}, state + flaps)),
            ...verbs.map(([label, words]) => button(label, words, `${label} ${name}`))),
        element('div', {class: 'commands'}, ...verbs.map(([, words]) => commandLine(words))));
  }));
}

function limitText(only) {
  if (!only) return '';
  const parts = [];
  for (const [name, value] of Object.entries(only.arguments ?? {})) parts.push(`${name} = ${value}`);
  if (only.client) parts.push(`client ${only.client}`);
  if (only.call) parts.push(`call ${only.call}`);
  return `; only ${parts.join(', ')}`;
}

function strikesText(count) {
  if (count === 0) return 'has not struck yet';
  return count === 1 ? 'struck once' : `struck ${count} times`;
}

function showFaults() {
  byId('faults-none').hidden = status.faults.length !== 0;
  renew('faults-list', status.faults, () => status.faults.map((fault) => {
    const where = fault.method === '*' ? [fault.service] : [fault.service, fault.method];
    const what = `${fault.fault} ${where.join('.')}`;
    const value =
        fault.value === true ? '' : `: ${typeof fault.value === 'object' ? fault.value.message : fault.value}`;
    const off = [fault.fault, ...where, 'off'];
    return element(
        'li', {class: 'fault'},
        element(
            'div', {class: 'row'}, switchButton(true, `${what}: switch off`, off),
            element(
                'span', {class: 'grow'}, element('strong', {}, what), value, `${limitText(fault.only)}; `,
                element('strong', {class: 'struck'}, strikesText(fault.struck)))),
        commandLine(off));
  }));
}

function registrationText(registration) {
  const values = Object.values(registration.arguments ?? {})
                     .map((value) => typeof value === 'string' ? value : JSON.stringify(value));
  return `${registration.service}.${registration.method}(${values.join(', ')})`;
}

function showClients() {
  byId('clients-none').hidden = status.clients.length !== 0;
  showClientNames();
  renew('clients-list', status.clients, () => status.clients.map((client) => {
    const held =
        [...client.registrations.map(registrationText), ...client.namespaces.map((name) => `namespace ${name}`)];
    return element(
        'li', {}, element('strong', {}, client.client || 'a program'), ` process ${client.pid}`,
        client.sinceMs ? `, since ${clock(client.sinceMs).slice(0, 8)}` : '',
        element('div', {class: 'faint'}, `connected to ${client.services.join(', ') || 'nothing'}`),
        held.length === 0 ? element('div', {class: 'faint'}, 'has registered nothing') :
                            element(
                                'details', {}, element('summary', {'data-key': client.pid}, `holds ${held.length}`),
                                element('ul', {}, ...held.map((text) => element('li', {}, text)))));
  }));
}

function showSwitches(device) {
  const rows = [
    ['Screen', device.screenOn, ['screen', device.screenOn ? 'off' : 'on']],
    ['Network', device.networkConnected, ['network', device.networkConnected ? 'disconnected' : 'connected']],
    ['Assistant', device.assistantConnected, ['maro', device.assistantConnected ? 'disconnected' : 'connected']],
    ['Account', device.account !== '', ['account', device.account !== '' ? 'removed' : 'added']],
  ];
  renew(
      'switches', rows,
      () => rows.map(
          ([label, isOn, words]) => element(
              'div', {class: 'control'},
              element('div', {class: 'row'}, switchButton(isOn, label, words), element('span', {class: 'grow'}, label)),
              commandLine(words))));
}

// A value, with a field to set it. `words` gives the verb that does.
function setter(label, value, words, remove = null) {
  const input = element('input', {value, 'data-value': value, 'data-key': `value of ${label}`, autocomplete: 'off'});
  const line = commandLine(() => words(input.value));
  const set = element('button', {type: 'submit', 'aria-label': `Set ${label}`}, 'Set');
  input.addEventListener('input', line.renew);
  const buttons = [set];
  if (remove) buttons.push(button('Remove', remove, `Remove ${label}`));
  const submit = async (event) => {
    event.preventDefault();
    if (await run(words(input.value))) input.dataset.value = input.value;
  };
  return element(
      'form', {class: 'control', on: {submit}},
      element('div', {class: 'fields'}, element('label', {}, label, input), ...buttons), line);
}

function newSetting() {
  const key = element('input', {autocomplete: 'off', 'data-key': 'key of a new setting'});
  const value = element('input', {autocomplete: 'off', 'data-key': 'value of a new setting'});
  const words = () => ['set', 'setting', key.value || 'KEY', value.value || 'VALUE'];
  const line = commandLine(words);
  for (const input of [key, value]) input.addEventListener('input', line.renew);
  const submit = async (event) => {
    event.preventDefault();
    if (key.value === '') return tell('A setting needs a name.', true);
    if (!await run(['set', 'setting', key.value, value.value])) return;
    key.value = value.value = '';
    line.renew();
  };
  return element(
      'form', {class: 'control', on: {submit}},
      element(
          'div', {class: 'fields'}, element('label', {}, 'New setting', key), element('label', {}, 'Value', value),
          element('button', {type: 'submit', 'aria-label': 'Set the new setting'}, 'Set')),
      line);
}

function folded(key, title, isOpen, ...children) {
  return element(
      'details', isOpen ? {open: ''} : {}, element('summary', {'data-key': key}, `${title} (${children.length})`),
      ...children);
}

// Those that have no control of their own.
function otherValues() {
  const shown = [
    'delegate name', 'delegate customerId', 'delegate maroConnected', 'power screenOn', 'connectivity networkConnected'
  ];
  return Object.entries(status.values)
      .flatMap(([service, values]) => Object.entries(values).map(([field, value]) => [service, field, value]))
      .filter(([service, field]) => !shown.includes(`${service} ${field}`))
      .map(([service, field,
             value]) => setter(`${service} ${field}`, String(value), (word) => ['set', service, field, word]));
}

function showSetters(device) {
  const {settings, otherSettings, values} = status;
  renew(
      'setters', [device.name, device.account, settings, otherSettings, values],
      () =>
          [setter('Name', device.name, (value) => ['set', 'name', value]),
           setter(
               'Account', device.account,
               (value) => (value === '' ? ['account', 'removed'] : ['account', 'added', value])),
           folded(
               'settings', 'Settings', false,
               ...Object.entries(settings).map(
                   ([key, value]) => setter(
                       `setting ${key}`, String(value), (word) => ['set', 'setting', key, word],
                       ['unset', 'setting', key]))),
           otherSettings === 0 ? '' :
                                 element(
                                     'div', {class: 'hint'}, `${otherSettings} more settings are not shown: `,
                                     commandLine(['get', 'settings'])),
           newSetting(),
           folded('others', 'Other values', false, ...otherValues()),
  ]);
}

function showStatus() {
  const device = status.device;
  document.title = `${device.name} – simulated device`;
  byId('name').textContent = device.name;
  byId('glance').textContent =
      `${device.about ? `${device.about}; ` : ''}${device.packages} packages, ${device.processes} ` +
      `processes, ${device.foreground ?? 'none'} in the foreground; ${status.traffic} entries of traffic; in ${
          status.directory}`;
  showServices();
  showFaults();
  showClients();
  showSwitches(device);
  showSetters(device);
}

// ---- The whole device ----

function prepareDevice() {
  const scenario = element(
      'select', {}, ...vocabulary.scenarios.map((each) => element('option', {value: each.scenario}, each.scenario)));
  const about = element('p', {class: 'hint'});
  const words = () => ['load', scenario.value];
  const line = commandLine(words);
  const chosen = () => {
    line.renew();
    about.textContent = vocabulary.scenarios.find((each) => each.scenario === scenario.value)?.about ?? '';
  };
  scenario.addEventListener('change', chosen);
  chosen();
  const load = element('button', {type: 'button', on: {click: () => run(words())}}, 'Load');
  byId('scenario')
      .append(
          element('div', {class: 'fields'}, element('label', {}, 'Let it be as in the scenario', scenario), load),
          about, line,
          element(
              'div', {class: 'control'},
              element('div', {class: 'row'}, button('Everything as at the start', ['reset', '--contents'])),
              commandLine(['reset', '--contents'])));
}

// The form that switches a fault on, with all that the verbs of faults take.
'use strict';

const options = (texts) => texts.map(([value, text]) => element('option', {value}, text));
const chosenService = () => vocabulary.services.find((each) => each.service === byId('fault-service').value);
const chosenFault = () => vocabulary.faults.find((each) => each.verb === byId('fault-kind').value);

function faultWords() {
  const method = byId('fault-method').value;
  const line = [byId('fault-kind').value, byId('fault-service').value];
  if (method !== '*') line.push(method);
  line.push(byId('fault-value').value || 'on');
  for (const input of byId('fault-form').querySelectorAll('input[data-argument]'))
    if (input.value !== '') line.push('--argument', `${input.dataset.argument}=${input.value}`);
  const isException = byId('fault-kind').value === 'exception';
  for (const name of ['client', 'call', ...(isException ? ['code', 'message', 'trace'] : [])])
    if (byId(`fault-${name}`).value !== '') line.push(...option(`--${name}`, byId(`fault-${name}`).value));
  return line;
}

function chooseMethod() {
  const method = byId('fault-method').value;
  const methods = (chosenService()?.methods ?? []).filter((each) => method === '*' || each.method === method);
  const names = [...new Set(methods.flatMap((each) => each.arguments))];
  byId('fault-arguments')
      .replaceChildren(...names.map(
          (name) => element(
              'label', {}, `Argument ${name}`, element('input', {'data-argument': name, autocomplete: 'off'}))));
}

function chooseService() {
  byId('fault-method').replaceChildren(...options([
    ['*', 'every method'], ...(chosenService()?.methods ?? []).map((each) => [each.method, each.method])
  ]));
  chooseMethod();
}

function chooseFault() {
  const chosen = chosenFault();
  byId('fault-help').textContent = chosen ? `${chosen.about}. Value: ${chosen.expected}.` : '';
  byId('fault-value').value = {delay: '500', truncate: '4'}[chosen?.verb] ?? 'on';
  byId('fault-exception').hidden = chosen?.verb !== 'exception';
}

// The clients that there are, to choose from.
function showClientNames() {
  const names = status.clients.flatMap((client) => [client.client, String(client.pid)]).filter(Boolean);
  byId('client-names').replaceChildren(...[...new Set(names)].map((value) => element('option', {value})));
}

function prepareFaults() {
  const line = commandLine(faultWords);
  byId('fault-service').replaceChildren(...options(vocabulary.services.map((each) => [each.service, each.service])));
  byId('fault-kind').replaceChildren(...options(vocabulary.faults.map((each) => [each.verb, each.verb])));
  byId('fault-service').addEventListener('change', chooseService);
  byId('fault-method').addEventListener('change', chooseMethod);
  byId('fault-kind').addEventListener('change', chooseFault);
  chooseService();
  chooseFault();
  line.renew();
  for (const event of ['change', 'input']) byId('fault-form').addEventListener(event, line.renew);
  byId('fault-form').append(element('button', {type: 'submit', id: 'fault-on'}, 'Switch on'), line);
  byId('fault-form').addEventListener('submit', (event) => {
    event.preventDefault();
    run(faultWords());
  });
  byId('reset').append(
      element('div', {class: 'row'}, button('Reset all', ['reset'], 'Reset all: end every fault')),
      commandLine(['reset']));
}

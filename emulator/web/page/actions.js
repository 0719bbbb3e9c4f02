// What can be done on the device, and what can be spoilt about it.
import { ask, byId, make, setText, tell } from './dom.js';
import { meaning } from './device.js';

const base64 = (text) => btoa(String.fromCharCode(...new TextEncoder().encode(text)));

// Each makes a command line of the chosen account and of its password as the device's web interface hands it over.
const kCommands = [
  ['Bind', (account, cipher) => `cloud_msg bind ${account} ${cipher}`, true],
  ['Log in', (account, cipher) => `cloud_msg login ${account} ${cipher}`, true],
  ['Unbind', () => 'cloud_msg unbind'],
  ['Bound?', () => 'cloud_msg getBindStatus'],
  ['Online?', () => 'cloud_msg online'],
  ['Alias', () => `cloud_msg alias ${base64('Upstairs')}`],
  ['Token', () => 'cloud_msg getDevToken'],
  ['Weather', () => `cloud_msg passthrough getWeather ${base64('{"unit":"celsius"}')}`],
  ['Kick off', () => 'cloud_msg kickoff'],
  ['Factory', () => 'cloud_msg factory'],
  ['Firmware list', () => 'cloud_msg getFwList'],
  ['Check', () => 'cloud_msg check'],
  ['Download', () => 'cloud_msg download'],
  ['Update', () => 'cloud_msg update'],
  ['Remove locks', () => 'rm -f /tmp/cloud_dl_img.lock /tmp/cloud_up_img.lock'],
];
const kOffered = ['bind', 'tmp_bind', 'unbind', 'tmp_unbind', 'login', 'alias', 'rmuser', 'getDevToken', 'passthrough', 'online',
  'getBindStatus', 'getLogicStatus', 'setLogicStatus', 'factory', 'kickoff', 'getFwList', 'check', 'download', 'update'];
const kMostShown = 30;
const shown = new Map(); // the commands in the terminal, by their number

const errors = (where) => (error) => setText(where, error.message);

async function run(line) {
  await tell('run', { line }).catch(errors(byId('outcome')));
}

async function fillAccounts() {
  const { accounts } = JSON.parse(await ask('cloud'));
  const before = byId('account').value;
  byId('account').replaceChildren(...accounts.map(({ name }) => make('option', { value: name, selected: name === before }, name)));
}

/** The forms of what can be done. */
export function prepareCommands() {
  byId('lines').append(...kOffered.map((word) => make('option', { value: `cloud_msg ${word}` })));
  byId('run').addEventListener('submit', (event) => {
    event.preventDefault();
    run(byId('line').value);
    byId('line').select();
  });
  byId('commands').append(...kCommands.map(([label, lineOf, secret]) => {
    const button = make('button', { type: 'button' }, label);
    button.addEventListener('click', async () => {
      try {
        const account = byId('account').value;
        const line = lineOf(account, secret ? await ask('cipher', { account }) : '');
        byId('line').value = line;
        await run(line);
      } catch (error) {
        errors(byId('outcome'))(error);
      }
    });
    return button;
  }));
  fillAccounts();
  document.addEventListener('accounts', fillAccounts);
}

function shortened(line) {
  return line.split(' ').map((word) => (word.length > 60 ? `${word.slice(0, 24)}…` : word)).join(' ');
}

/** Shows commands and what they wrote; the text of one grows. */
export function showRuns(runs) {
  const terminal = byId('terminal');
  const atEnd = terminal.scrollTop + terminal.clientHeight >= terminal.scrollHeight - 4;
  for (const one of runs) {
    let entry = shown.get(one.id);
    if (!entry) {
      entry = { typed: make('pre', { className: 'typed', title: one.line }, `$ ${shortened(one.line)}`), text: make('pre'), ended: make('p', { className: 'quiet' }) };
      shown.set(one.id, entry);
      entry.element = make('div', {}, entry.typed, entry.text, entry.ended);
      terminal.append(entry.element);
    }
    setText(entry.text, one.text.trimEnd());
    const argv = one.line.split(/\s+/);
    const what = argv[0] === 'cloud_msg' ? meaning(one.text, argv) : '';
    setText(entry.ended, one.ended ? `${what ? `${what}, ` : ''}ended with ${one.status}` : 'runs');
    if (one.ended) setText(byId('outcome'), `${shortened(argv.slice(0, 2).join(' '))}: ${what || `ended with ${one.status}`}`);
  }
  for (const [id, entry] of shown) {
    if (shown.size <= kMostShown) break;
    entry.element.remove();
    shown.delete(id);
  }
  if (atEnd) terminal.scrollTop = terminal.scrollHeight;
}

export function clearRuns() {
  shown.clear();
  byId('terminal').replaceChildren();
}

// Groups of faults: a button, and the words that it injects; N is its field's number.
const kFaults = {
  'Next answer': [
    ['is error', 'answer N', -20580], ['is refused with', 'refuse N', -1], ['never comes', 'silence'],
    ['comes later, ms', 'delay N', 2000], ['is cut after bytes', 'cut N', 20],
  ],
  'Link to the cloud': [['Down', 'link down'], ['Up', 'link up']],
  Broker: [['Restarts', 'broker restart'], ['Is full', 'full broker'], ['Stops', 'broker stop'], ['Starts', 'broker start']],
  'Next download': [
    ['drops at %', 'download cut N%', 40], ['stalls at %', 'download stall N%', 40], ['is told as bytes', 'download length N', 1000],
    ['gets status', 'download status N', 503],
  ],
  'Download now': [['Cut', 'download cut'], ['Stall', 'download stall'], ['Go on', 'download go']],
  Device: [['Fill /tmp', 'full tmp'], ['Free /tmp', 'free tmp'], ['Restart', 'device restart']],
  All: [['Clear all faults', 'clear']],
};

function fault(group, [label, words, number]) {
  const button = make('button', { type: 'button' }, label);
  const input = number === undefined ? null : make('input', { type: 'number', value: number, 'aria-label': `${group} ${label}` });
  button.addEventListener('click', () => {
    const text = words.replace('N', input?.value ?? '');
    tell('spoil', { fault: text }).then(() => setText(byId('spoiled'), `Injected: ${text}`), errors(byId('spoiled')));
  });
  return input ? make('span', { className: 'pair' }, button, input) : button;
}

/** The forms of what can be spoilt. */
export function prepareFaults() {
  byId('faults').append(...Object.entries(kFaults).map(([group, rows]) =>
    make('fieldset', {}, make('legend', {}, group), ...rows.map((row) => fault(group, row)))));
}

/** Lists what was injected. */
export function showInjected(records) {
  byId('injected').append(...records.filter((record) => record.kind === 'injected')
    .map((record) => make('li', {}, `${(record.t ?? 0).toFixed(1)} s: ${record.text ?? JSON.stringify(record.rule)}`)));
}

export function clearInjected() {
  byId('injected').replaceChildren();
}

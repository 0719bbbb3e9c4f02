// The device as one sees it, and what is inside: its files, its store, the cloud's accounts and firmware.
import { ask, byId, make, setText, tell } from './dom.js';

const kBar = {
  0: 'No firmware command has run', 1: 'Downloading', 2: 'Downloaded', 3: 'Verifying, installing', 4: 'Asking the cloud',
  5: 'The cloud was asked', 11: 'Starting', 20000: 'Download failed', 20001: 'Image refused', 20003: 'Check failed',
  20004: 'No memory',
};
const kLink = { 2: 'up', 4: 'reconnecting' };
let codes = {};

/** Takes what printed numbers mean, by number. */
export function takeCodes(all) { codes = all; }

/** What a printed number means, or "". */
export function meaning(text, argv = []) {
  const number = text.trim();
  if (/^(getBindStatus|getLogicStatus)$/.test(argv[1] ?? '')) return number === '1' ? 'yes, an account' : 'no account';
  if (!/^-?\d+$/.test(number)) return '';
  return codes[number]?.split(';')[0] ?? 'a code of the cloud’s or the broker’s own';
}

const word = (text, good) => make('span', { className: good ? 'good' : 'bad' }, text);
const short = (argv) => argv.map((one) => (one.length > 40 ? `${one.slice(0, 16)}…` : one)).join(' ');

function lastNumber({ last, result }) {
  if (last?.argv && last.printed?.trim()) {
    const number = last.printed.trim().split('\n').at(-1);
    const what = meaning(number, last.argv);
    return [`${number}${what ? `: ${what}` : ''}`, make('br'), make('span', { className: 'quiet' }, short(last.argv))];
  }
  return result === null ? ['none yet'] : [`${result}: ${meaning(String(result))}`];
}

function factsOf(state) {
  return {
    Bound: [state.bound ? word('yes', true) : 'no', state.account ? ` to ${state.account}` : ''],
    'Owner in the cloud': [state.owner || 'nobody'],
    Alias: [state.alias || 'none'],
    Mode: [state.mode === 1 ? 'account' : 'no account'],
    'Link to the cloud': [word(kLink[state.link] ?? `down (${state.link})`, state.link === 2)],
    Firmware: [state.firmware],
    Locks: state.locks.length ? state.locks.map((lock) => make('div', {}, word(`${lock.command}${lock.held ? '' : ': left over, rm '}${lock.held ? ' runs' : lock.path}`, lock.held))) : ['none'],
    'Last number': lastNumber(state),
    Scripts: state.scripts.length ? [state.scripts.slice(-3).map((one) => [one.name, ...one.arguments].join(' ')).join(', ')] : ['none has run'],
    'Room in /tmp': [state.tmp_free > 4096 ? `${(state.tmp_free / 2 ** 20).toFixed(0)} MiB` : word('full', false)],
  };
}

/** The panel of the device. */
export function showState(state) {
  byId('facts').replaceChildren(...Object.entries(factsOf(state)).flatMap(([name, value]) =>
    [make('dt', {}, name), make('dd', {}, ...value)]));
  const number = state.status?.fw_status ?? 0;
  const percent = Math.min(100, Math.max(0, state.status?.dwProgress ?? 0));
  const text = kBar[number] ?? `Firmware status ${number}`;
  setText(byId('progress-text'), number === 0 ? text : `${text}, ${percent} %`);
  byId('progress').value = percent;
}

function table(columns, rows, className = '') {
  return make('div', { className: 'scroll', tabIndex: 0, role: 'group', 'aria-label': 'Table' }, make('table', { className },
    make('thead', {}, make('tr', {}, ...columns.map((name) => make('th', { scope: 'col' }, name)))),
    make('tbody', {}, ...rows.map((cells) => make('tr', {}, ...cells.map((cell, i) => make('td', { 'data-column': columns[i] }, cell)))))));
}

async function filesTable() {
  const content = make('pre', { className: 'content', tabIndex: 0, hidden: true, 'aria-label': 'Content of the file' });
  const open = (path) => {
    const button = make('button', { type: 'button', className: 'link' }, path);
    button.addEventListener('click', async () => {
      content.hidden = false;
      content.textContent = await ask('file', { path }).catch((error) => error.message);
    });
    return button;
  };
  const files = JSON.parse(await ask('files')).sort((one, other) => one.path.localeCompare(other.path));
  return [table(['Path', 'Kind', 'Bytes', 'Mode', 'Changed'], files.map((file) => [
    file.kind === 'file' ? open(file.path) : file.path, file.kind, String(file.size), file.mode.toString(8).padStart(4, '0'),
    new Date(file.changed * 1000).toLocaleTimeString(),
  ])), content];
}

async function storeTable() {
  const text = await ask('store');
  let records;
  try {
    records = JSON.parse(text);
  } catch {
    return [make('pre', { className: 'content', tabIndex: 0 }, text)];
  }
  const rows = Object.entries(records).flatMap(([name, record]) =>
    Object.entries(record ?? {}).map(([member, value]) => [name, member, typeof value === 'string' ? value : JSON.stringify(value)]));
  return [table(['Record', 'Member', 'Value'], rows)];
}

// A table whose cells are edited: save(list) gets what the fields hold.
function editor(rows, columns, fresh, save, extra = []) {
  const list = rows.map((row) => ({ ...row }));
  const said = make('p', { className: 'quiet', role: 'status' });
  const box = make('div');
  const field = (row, { name, label, type = 'text', placeholder = '' }) => {
    const input = make('input', { type, value: row[name] ?? '', placeholder, 'aria-label': label });
    input.addEventListener('input', () => { row[name] = type === 'number' ? Number(input.value) : input.value; });
    return input;
  };
  const draw = () => box.replaceChildren(table([...columns.map((column) => column.label), 'Row'], list.map((row) => {
    const remove = make('button', { type: 'button' }, 'Remove');
    remove.addEventListener('click', () => { list.splice(list.indexOf(row), 1); draw(); });
    return [...columns.map((column) => field(row, column)), remove];
  }), 'edited'));
  const button = (text, action) => {
    const one = make('button', { type: 'button' }, text);
    one.addEventListener('click', action);
    return one;
  };
  draw();
  return [box, make('div', { className: 'buttons' },
    button('Add', () => { list.push({ ...fresh }); draw(); }),
    button('Save', async () => setText(said, await save(list).then(() => 'Saved.', (error) => error.message))),
  ), said, ...extra];
}

async function accountsTable() {
  const cloud = JSON.parse(await ask('cloud'));
  const covered = (account) => account.password.startsWith('••••');
  const rows = cloud.accounts.map((account) => ({ ...account, was: account.name, password: covered(account) ? '' : account.password }));
  const columns = [
    { name: 'name', label: 'Account' }, { name: 'password', label: 'Password', placeholder: 'as it is' },
    { name: 'role', label: 'Role at login', type: 'number', placeholder: 'by itself' },
  ];
  return editor(rows, columns, { name: '', password: '' }, (list) => tell('cloud', {
    accounts: list.map(({ password, ...rest }) => (password || !rest.was ? { ...rest, password } : rest)),
  }).then(() => document.dispatchEvent(new Event('accounts'))));
}

async function firmwareTable() {
  const cloud = JSON.parse(await ask('cloud'));
  const columns = [
    { name: 'fwVer', label: 'Version' }, { name: 'fwReleaseDate', label: 'Date' }, { name: 'fwReleaseLog', label: 'Changes' },
    { name: 'fwUrl', label: 'Address' }, { name: 'fwType', label: 'Type', type: 'number' },
  ];
  const version = make('input', { value: '1.0.9 Build 20220301 Rel.60113', 'aria-label': 'Version to publish', required: true });
  const size = make('input', { type: 'number', value: 4, min: 1, max: 256, 'aria-label': 'Size in megabytes', required: true });
  const said = make('p', { className: 'quiet', role: 'status' });
  const form = make('form', { className: 'field' }, version, size, make('span', {}, 'MB'), make('button', {}, 'Publish'));
  form.addEventListener('submit', async (event) => {
    event.preventDefault();
    setText(said, await tell('firmware', { version: version.value, bytes: size.valueAsNumber * 1e6 }).then(() => 'Published.', (error) => error.message));
    show('firmware');
  });
  return editor(cloud.firmware, columns, { fwVer: '', fwType: 2 }, (list) => tell('cloud', { firmware: list }), [form, said]);
}

const kTables = { files: filesTable, store: storeTable, accounts: accountsTable, firmware: firmwareTable };

async function show(name) {
  const details = byId(name);
  if (!details.open) return;
  const content = await kTables[name]().catch((error) => [make('p', { className: 'bad' }, error.message)]);
  details.querySelector(':scope > div').replaceChildren(...content);
}

/** Fills a table when it is opened. */
export function prepareTables() {
  for (const name of Object.keys(kTables)) byId(name).addEventListener('toggle', () => show(name));
}

let due = false;

/** Reads the tables again that nobody edits, once for many changes; with all, those that may be edited, too. */
export function refreshTables(all = false) {
  for (const name of all ? ['accounts', 'firmware'] : []) show(name);
  if (due) return;
  due = true;
  setTimeout(() => { due = false; show('store'); if (!byId('files').contains(document.activeElement)) show('files'); }, 500);
}

// The page: one stream of events feeds all of it, so that loading it again shows the same.
import { clearInjected, clearRuns, prepareCommands, prepareFaults, showInjected, showRuns } from './actions.js';
import { address, byId, secretsShown, setText, showSecrets } from './dom.js';
import { prepareTables, refreshTables, showState, takeCodes } from './device.js';
import { Sequence } from './sequence.js';

const sequence = new Sequence();
let source = null;

function connect() {
  source?.close();
  sequence.clear();
  clearRuns();
  clearInjected();
  source = new EventSource(address('events'));
  const on = (name, take) => source.addEventListener(name, (event) => take(JSON.parse(event.data)));
  on('records', (news) => {
    sequence.add(news);
    showInjected(news.map(({ record }) => record));
    refreshTables();
  });
  on('codes', takeCodes);
  on('runs', showRuns);
  on('state', showState);
  source.addEventListener('open', () => {
    setText(byId('connection'), 'Live');
    byId('connection').classList.remove('lost');
  });
  source.addEventListener('error', () => {
    setText(byId('connection'), 'The device does not answer: it has ended, or begins anew');
    byId('connection').classList.add('lost');
  });
}

byId('secrets').addEventListener('click', (event) => {
  showSecrets(!secretsShown());
  event.target.setAttribute('aria-pressed', String(secretsShown()));
  byId('save-journal').href = address('journal');
  byId('save-scenario').href = address('scenario');
  connect();
  refreshTables(true);
});

const dark = matchMedia('(prefers-color-scheme: dark)');
function paint(isDark) {
  document.documentElement.className = isDark ? 'dark' : 'light';
  byId('theme').setAttribute('aria-pressed', String(isDark));
}
paint(localStorage.getItem('theme') ? localStorage.getItem('theme') === 'dark' : dark.matches);
byId('theme').addEventListener('click', () => {
  const isDark = document.documentElement.className !== 'dark';
  localStorage.setItem('theme', isDark ? 'dark' : 'light');
  paint(isDark);
});

prepareCommands();
prepareFaults();
prepareTables();
connect();

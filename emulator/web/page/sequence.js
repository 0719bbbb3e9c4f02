// What goes on: lanes, arrows, the message that is unfolded; and the console beside it.
import { byId, make, setText } from './dom.js';
import { VirtualList } from './list.js';
import { bytes, lanes, unfolded } from './record.js';

const time = (record) => (record.t ?? 0).toFixed(3);
const between = ({ from, to, style }) => (style === 'note' ? 'note' : from === to ? lanes[from] : `${lanes[from]} to ${lanes[to]}`);

export class Sequence {
  constructor() {
    this.rows = [];
    this.hidden = new Set();
    this.paused = false;
    this.list = new VirtualList(byId('rows'), 'What goes on', (row, item) => this.#draw(row, item), (item) => this.#unfold(item));
    this.console = new VirtualList(byId('console-rows'), 'Console', (row, record) => {
      row.append(make('time', {}, time(record)), make('span', { title: record.text }, record.text));
    });
    byId('lanes').append(make('span'), ...lanes.map((lane, number) => {
      const button = make('button', { type: 'button', 'aria-pressed': 'true' }, lane);
      button.addEventListener('click', () => this.#toggle(number, button));
      return button;
    }));
    byId('pause').addEventListener('click', (event) => {
      this.paused = !this.paused;
      event.target.setAttribute('aria-pressed', String(this.paused));
      this.#show();
    });
    byId('latest').addEventListener('click', () => this.list.follow());
  }

  clear() {
    this.rows = [];
    this.last = 0;
    this.console.reset([]);
    this.#show();
  }

  /** News: records, each with the arrows that it is drawn as. */
  add(news) {
    const rows = news.flatMap(({ record, arrows }) => arrows.map((arrow) => ({ record, arrow })));
    for (const row of rows) this.rows.push(row);
    this.last = news.at(-1).record.seq;
    this.console.append(news.map(({ record }) => record).filter(({ kind }) => kind === 'console'));
    if (!this.paused) this.list.append(rows.filter((row) => this.#shown(row)));
    this.#count();
  }

  #shown({ arrow: { from, to, style } }) {
    return style === 'note' || (!this.hidden.has(from) && !this.hidden.has(to));
  }

  #toggle(lane, button) {
    const hide = !this.hidden.has(lane);
    this.hidden[hide ? 'add' : 'delete'](lane);
    button.setAttribute('aria-pressed', String(!hide));
    this.#show();
  }

  #show() {
    if (!this.paused) this.list.reset(this.rows.filter((row) => this.#shown(row)));
    this.#count();
  }

  #count() {
    const hidden = this.rows.length - this.list.items.length;
    setText(byId('count'), `${this.last} records${hidden ? `, ${hidden} lines hidden` : ''}${this.paused ? ', paused' : ''}`);
  }

  #draw(row, { record, arrow: { from, to, style, label, fault } }) {
    const [left, right] = style === 'note' ? [-0.5, lanes.length - 0.5] : [Math.min(from, to), Math.max(from, to)];
    const arrow = make('span', { className: `arrow ${style}` });
    if (style !== 'note') arrow.classList.add(from === to ? 'dot' : from < to ? 'right' : 'left');
    arrow.style.left = `${((left + 0.5) / lanes.length) * 100}%`;
    if (left !== right) arrow.style.width = `${((right - left) / lanes.length) * 100}%`;
    const text = make('span', { className: 'label', title: label }, make('span', {}, (fault ? '⚠ ' : '') + label));
    if (left > 3) text.classList.add('end');
    else if (left > 0) text.style.setProperty('--at', `${(left / lanes.length) * 100}%`);
    row.classList.toggle('fault', fault);
    row.append(make('time', {}, time(record)), make('span', { className: 'track' }, text, arrow));
    row.setAttribute('aria-label', `${time(record)} s, ${between({ from, to, style })}: ${label}${fault ? ', a fault' : ''}`);
  }

  #unfold({ record, arrow }) {
    const dump = bytes(record);
    byId('message').replaceChildren(
      make('h3', {}, `${record.seq}. ${between(arrow)}: ${arrow.label}`),
      make('pre', { tabIndex: 0, 'aria-label': 'The record, unfolded' }, JSON.stringify(unfolded(record), null, 2)),
      ...(dump ? [make('pre', { className: 'bytes', tabIndex: 0, 'aria-label': 'Its bytes' }, dump)] : []),
    );
  }
}

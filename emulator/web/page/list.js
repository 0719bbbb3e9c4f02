// A list of which only the rows in view are in the document, however long it is. It follows its end until
// somebody scrolls away from there.
import { make } from './dom.js';

const kSpare = 6; // rows drawn beyond each edge

export class VirtualList {
  /** draw(row, item): fills an empty row. choose(item, index): a row was chosen, or null. */
  constructor(box, label, draw, choose = null) {
    Object.assign(this, { box, draw, choose, items: [], chosen: -1, following: true, drawn: new Map(), due: false });
    this.sizer = make('div', { className: 'sizer', role: 'listbox', tabIndex: 0, 'aria-label': label });
    box.append(this.sizer);
    box.addEventListener('scroll', () => {
      this.following = box.scrollTop + box.clientHeight >= box.scrollHeight - 4;
      this.request();
    }, { passive: true });
    new ResizeObserver(() => this.request()).observe(box);
    this.sizer.addEventListener('keydown', (event) => this.#key(event));
    this.sizer.addEventListener('click', (event) => {
      const row = event.target.closest('.row');
      if (row) this.choice(Number(row.dataset.index));
    });
  }

  /** Other items than before, or the same in another way. */
  reset(items) {
    this.items = items;
    this.chosen = -1;
    this.#forget();
    this.request();
  }

  append(items) {
    for (const item of items) this.items.push(item);
    this.request();
  }

  follow() {
    this.following = true;
    this.request();
  }

  choice(index) {
    if (index < 0 || index >= this.items.length) return;
    const before = this.drawn.get(this.chosen);
    if (before) before.setAttribute('aria-selected', 'false');
    this.chosen = index;
    const top = index * this.#height();
    const room = this.box.clientHeight - this.sizer.offsetTop;
    if (top < this.box.scrollTop) this.box.scrollTop = top;
    else if (top + this.#height() > this.box.scrollTop + room) this.box.scrollTop = top + this.#height() - room;
    this.#paint();
    this.sizer.setAttribute('aria-activedescendant', this.drawn.get(index)?.id ?? '');
    this.choose?.(this.items[index], index);
  }

  request() {
    if (this.due) return;
    this.due = true;
    requestAnimationFrame(() => { this.due = false; this.#paint(); });
  }

  #height() {
    const row = getComputedStyle(this.box).getPropertyValue('--row');
    return parseFloat(row) * parseFloat(getComputedStyle(document.documentElement).fontSize);
  }

  #forget() {
    for (const row of this.drawn.values()) row.remove();
    this.drawn.clear();
  }

  #paint() {
    const height = this.#height();
    if (height !== this.height) this.#forget();
    this.height = height;
    this.sizer.style.height = `${this.items.length * height}px`;
    if (this.following) this.box.scrollTop = this.box.scrollHeight;
    const first = Math.max(0, Math.floor(this.box.scrollTop / height) - kSpare);
    const last = Math.min(this.items.length, Math.ceil((this.box.scrollTop + this.box.clientHeight) / height) + kSpare);
    for (const [index, row] of this.drawn) {
      if (index < first || index >= last) {
        row.remove();
        this.drawn.delete(index);
      }
    }
    for (let index = first; index < last; index++) {
      let row = this.drawn.get(index);
      if (!row) {
        row = make('div', { className: 'row', role: 'option', id: `${this.box.id}-${index}` });
        row.dataset.index = index;
        row.style.transform = `translateY(${index * height}px)`;
        this.draw(row, this.items[index]);
        this.drawn.set(index, row);
        this.sizer.append(row);
        row.setAttribute('aria-posinset', index + 1);
      }
      row.setAttribute('aria-selected', String(index === this.chosen));
      row.setAttribute('aria-setsize', this.items.length);
    }
  }

  #key(event) {
    const page = Math.max(1, Math.floor(this.box.clientHeight / this.#height()) - 1);
    const steps = { ArrowDown: 1, ArrowUp: -1, PageDown: page, PageUp: -page, Home: -Infinity, End: Infinity };
    if (!(event.key in steps) || event.ctrlKey || event.altKey) return;
    event.preventDefault();
    const from = this.chosen < 0 ? this.items.length : this.chosen;
    this.following = event.key === 'End';
    this.choice(Math.min(this.items.length - 1, Math.max(0, from + steps[event.key])));
  }
}

// The list: as many rows as fit the window are elements, however many items there are. The newest is on top.
import { byId, make, short, timeOfDay } from './dom.js';
import { badgeOf, kindOf, summaryOf } from './words.js';

const ROW = 34; // pixels, as the style sheet has it
const MARGIN = 6; // rows above and below the window

export class List {
  /** `onSelect` is told the item and whether its details are to be gone to. */
  constructor(store, onSelect) {
    this.store = store;
    this.onSelect = onSelect;
    this.box = byId('list');
    this.rows = this.box.querySelector('.rows');
    this.pill = byId('newest');
    this.drawn = new Map(); // number: row
    this.selected = 0;
    this.unseen = 0;
    this.isAsked = false;
    this.box.addEventListener('scroll', () => this.onScroll());
    this.box.addEventListener('keydown', (event) => this.onKey(event));
    this.rows.addEventListener('click', (event) => this.onClick(event));
    this.pill.addEventListener('click', () => this.toTop());
    new ResizeObserver(() => this.ask()).observe(this.box);
  }

  get count() {
    return this.store.shown.length;
  }
  /** The item of a place in the list, counted from the newest. */
  at(place) {
    return this.store.shown[this.count - 1 - place];
  }
  placeOf(number) {
    const { shown } = this.store;
    let low = 0;
    let high = shown.length - 1;
    while (low <= high) {
      const middle = (low + high) >> 1;
      if (shown[middle].n === number) return shown.length - 1 - middle;
      if (shown[middle].n < number) low = middle + 1;
      else high = middle - 1;
    }
    return -1;
  }

  /** So many new ones are on top: who reads further down keeps what they read where it is. */
  grow(count) {
    if (count > 0 && this.box.scrollTop > ROW / 2) {
      this.rows.style.height = `${this.count * ROW}px`;
      this.box.scrollTop += count * ROW;
      this.unseen += count;
    }
    this.ask();
  }

  toTop() {
    this.box.scrollTop = 0;
    this.unseen = 0;
    this.box.focus();
    this.ask();
  }

  /** Draws before the next frame, once. */
  ask() {
    if (this.isAsked) return;
    this.isAsked = true;
    requestAnimationFrame(() => {
      this.isAsked = false;
      this.drawAll();
    });
  }

  drawAll() {
    this.rows.style.height = `${this.count * ROW}px`;
    const first = Math.max(0, Math.floor(this.box.scrollTop / ROW) - MARGIN);
    const last = Math.min(this.count, Math.ceil((this.box.scrollTop + this.box.clientHeight) / ROW) + MARGIN);
    const kept = new Map();
    const wanted = [];
    for (let place = first; place < last; place += 1) {
      const row = this.rowOf(this.at(place), place);
      kept.set(this.at(place).n, row);
      wanted.push(row);
    }
    for (const [number, row] of this.drawn) if (kept.get(number) !== row) row.remove();
    wanted.forEach((row, index) => {
      if (this.rows.children[index] !== row) this.rows.insertBefore(row, this.rows.children[index] ?? null);
    });
    this.drawn = kept;
    const active = this.drawn.get(this.selected);
    if (active) this.box.setAttribute('aria-activedescendant', active.id);
    else this.box.removeAttribute('aria-activedescendant');
    this.pill.hidden = this.unseen === 0;
    this.pill.textContent = `↑ ${this.unseen.toLocaleString('en')} new`;
  }

  rowOf(item, place) {
    const badge = badgeOf(this.store, item);
    const look = `${badge?.join() ?? ''}`;
    let row = this.drawn.get(item.n);
    if (!row || row.dataset.look !== look) row = this.makeRow(item, badge, look, row === undefined);
    row.style.top = `${place * ROW}px`;
    row.setAttribute('aria-selected', String(item.n === this.selected));
    row.setAttribute('aria-posinset', String(place + 1));
    row.setAttribute('aria-setsize', String(this.count));
    return row;
  }

  makeRow(item, badge, look, isNew) {
    const [bold, beside] = summaryOf(item);
    const kind = item.kind === 'event' ? '' : item.kind === 'batch' ? ' batch' : ' request';
    const fresh = isNew && Date.now() - item.at < 1500 ? ' fresh' : '';
    const row = make('div', { className: `row${kind}${fresh}`, id: `row-${item.n}`, role: 'option' },
      make('span', { className: 'time' }, timeOfDay(item.at)),
      make('span', { className: 'kind' }, kindOf(item)),
      make('span', { className: badge ? 'what' : 'what wide' }, make('b', {}, bold), make('span', {}, beside.slice(0, 300))));
    if (badge) {
      const who = item.session || item.device || '';
      row.append(make('span', { className: 'who', title: who }, short(who)), make('span', { className: `badge ${badge[0]}`, title: badge[1] }, badge[1]));
    }
    row.dataset.number = item.n;
    row.dataset.look = look;
    return row;
  }

  onScroll() {
    if (this.box.scrollTop < ROW / 2) this.unseen = 0;
    this.ask();
  }

  onClick(event) {
    const row = event.target.closest('.row');
    if (row) this.select(Number(row.dataset.number), false);
  }

  select(number, goThere) {
    this.selected = number;
    const place = this.placeOf(number);
    if (place >= 0) this.reveal(place);
    this.ask();
    this.onSelect(this.store.find(number), goThere);
  }

  reveal(place) {
    const top = place * ROW;
    if (top < this.box.scrollTop) this.box.scrollTop = top;
    else if (top + ROW > this.box.scrollTop + this.box.clientHeight) this.box.scrollTop = top + ROW - this.box.clientHeight;
  }

  onKey(event) {
    const page = Math.max(1, Math.floor(this.box.clientHeight / ROW) - 1);
    const place = this.selected ? this.placeOf(this.selected) : -1;
    const moves = { ArrowDown: place + 1, ArrowUp: place - 1, PageDown: place + page, PageUp: place - page, Home: 0, End: this.count - 1 };
    if (event.ctrlKey || event.metaKey || event.altKey || this.count === 0) return;
    if (event.key in moves) {
      event.preventDefault();
      this.select(this.at(Math.min(this.count - 1, Math.max(0, moves[event.key]))).n, false);
    } else if ((event.key === 'Enter' || event.key === ' ') && place >= 0) {
      event.preventDefault();
      this.onSelect(this.at(place), true);
    }
  }
}

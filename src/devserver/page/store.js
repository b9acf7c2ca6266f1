// What the page knows: the server's items in their order, what became of each event, and those that pass the filters.

/** As much as the server keeps: so many items, and so many characters of them. */
const ROOM = { lines: 125000, length: 128 * 1024 * 1024 };
/** Old items go in portions of this part of the room, so that not every new one moves all others. */
const PORTION = 0.04;

const GROUPS = { lookup: 'share', link: 'share', match: 'other' };
export const groupOf = (item) => GROUPS[item.kind] ?? item.kind;
export const isRequest = (item) => item.verdict !== undefined;
export const sessionKey = (item) => {
  item.key ??= item.session ? [item.app, item.device, item.session].join('\n') : '';
  return item.key;
};

export class Store {
  constructor(room = ROOM) {
    this.room = room;
    this.reset();
  }

  reset() {
    this.items = []; // ascending by number
    this.length = 0; // of their texts, together
    this.fates = new Map(); // number of an event: how often and by which request it was carried
    this.shown = []; // those that pass the filter, ascending
    this.filter = { text: '', kind: '', verdict: '', session: '' };
  }

  get newest() {
    return this.items.length ? this.items[this.items.length - 1].n : 0;
  }
  get oldest() {
    return this.items.length ? this.items[0].n : 0;
  }

  find(number) {
    const { items } = this;
    const guess = items[number - this.oldest];
    if (guess?.n === number) return guess;
    let low = 0;
    let high = items.length - 1;
    while (low <= high) {
      const middle = (low + high) >> 1;
      if (items[middle].n === number) return items[middle];
      if (items[middle].n < number) low = middle + 1;
      else high = middle - 1;
    }
    return undefined;
  }

  /** Newer items, oldest first. How many of them pass the filter; -1 when the filter had to be applied anew. */
  append(added) {
    const fresh = added.filter((item) => item.n > this.newest);
    for (const item of fresh) {
      this.items.push(item);
      this.length += measure(item);
    }
    const changed = this.note(fresh);
    if (this.trim() || (changed && this.filter.verdict)) {
      this.refilter();
      return -1;
    }
    const passing = fresh.filter((item) => this.passes(item));
    for (const item of passing) this.shown.push(item);
    return passing.length;
  }

  /** Older items, newest first. False when there was no room for all of them. */
  prepend(added) {
    const further = added.filter((item) => !this.items.length || item.n < this.oldest);
    const older = [];
    for (const item of further) {
      const length = measure(item);
      if (this.items.length + older.length >= this.room.lines || this.length + length > this.room.length) break;
      this.length += length;
      older.push(item);
    }
    older.reverse();
    this.items = older.concat(this.items);
    const changed = this.note(older);
    if (changed && this.filter.verdict) this.refilter();
    else this.shown = older.filter((item) => this.passes(item)).concat(this.shown);
    return older.length === further.length;
  }

  /** Notes what can be searched, and what became of the events that these requests carried; true when that is news of events that are here. */
  note(added) {
    for (const item of added) item.searchText = searchTextOf(item);
    let changed = false;
    for (const request of added) {
      for (const [first, last] of request.events ?? []) {
        for (let number = first; number <= last; number += 1) changed = this.noteOne(number, request) || changed;
      }
    }
    return changed;
  }

  noteOne(number, request) {
    const fate = this.fates.get(number);
    if (!fate) {
      this.fates.set(number, { attempts: 1, taken: request.taken, last: request.n });
      return false;
    }
    fate.attempts += 1;
    fate.taken ||= request.taken;
    if (request.n > fate.last) fate.last = request.n;
    return true;
  }

  trim() {
    const { lines, length } = this.room;
    const most = 1 + PORTION;
    if (this.items.length <= lines * most && this.length <= length * most) return false;
    let gone = 0;
    for (; gone + 1 < this.items.length && (this.items.length - gone > lines || this.length > length); gone += 1) this.length -= this.items[gone].length;
    this.items.splice(0, gone);
    // Also those of events that were gone when another request carried them.
    for (const number of this.fates.keys()) if (number < this.oldest) this.fates.delete(number);
    return true;
  }

  /** The request that decided over an item: itself, or the last one that carried the event. */
  carrierOf(item) {
    return item.kind === 'event' ? this.find(this.fates.get(item.n)?.last) : item;
  }

  /** "taken", "refused", "disturbed", or nothing for what has no verdict. */
  verdictOf(item) {
    if (item.kind === 'event' && this.fates.get(item.n)?.taken) return 'taken';
    const request = this.carrierOf(item);
    if (!request || !isRequest(request)) return '';
    if (request.taken) return 'taken';
    return request.verdict === 'ok' ? 'disturbed' : 'refused';
  }

  setFilter(filter) {
    this.filter = { ...filter, text: filter.text.trim().toLowerCase() };
    this.refilter();
  }

  get isFiltered() {
    return Object.values(this.filter).some((value) => value !== '');
  }

  refilter() {
    this.shown = this.isFiltered ? this.items.filter((item) => this.passes(item)) : this.items.slice();
  }

  passes(item) {
    const { text, kind, verdict, session } = this.filter;
    if (kind && groupOf(item) !== kind) return false;
    if (verdict && this.verdictOf(item) !== verdict) return false;
    if (session && !this.belongsTo(item, session)) return false;
    return !text || item.searchText.includes(text);
  }

  belongsTo(item, session) {
    if (item.kind === 'event') return sessionKey(item) === session;
    if (item.kind === 'batch') {
      return item.events?.some(([first, last]) => {
        for (let number = first; number <= last; number += 1) {
          const event = this.find(number);
          if (event && sessionKey(event) === session) return true;
        }
        return false;
      });
    }
    return false;
  }
}

/** How long an item's text is; noted in it. */
function measure(item) {
  item.length = JSON.stringify(item).length;
  return item.length;
}

/** All that can be searched for in an item. It is made as items come, piece by piece, and not when somebody searches. */
function searchTextOf(item) {
  const data = item.data === undefined ? item.dataBeginning : JSON.stringify(item.data);
  return [item.name, item.session, item.device, item.app, item.verdict, item.target, item.shareId, item.id, item.misbehaviour, data]
    .join('\n').toLowerCase();
}

// The plot of events and bytes over time, and the timeline of sessions.
import { byId, bytes, counted, draw, make, short, timeOfDay } from './dom.js';
import { isRequest, sessionKey } from './store.js';

const BINS = 60;
const WIDTH = 600;
const HEIGHT = 100;
const FOOT = 1;
const HEAD = 8;
const LANES = 30;
const LANE_BINS = 100;

export class Charts {
  constructor(store, onSession) {
    this.store = store;
    this.onSession = onSession;
    this.span = byId('span');
    this.span.addEventListener('change', () => this.draw());
    this.sessions = new Map();
  }

  draw() {
    this.drawPlot();
    this.drawSessions();
  }

  drawPlot() {
    const { items } = this.store;
    const now = Date.now();
    const seconds = Number(this.span.value);
    const start = seconds ? now - seconds * 1000 : Math.min(items[0]?.at ?? now - 60000, now - 1000);
    const bins = binned(this.store, start, now);
    const plot = draw('svg', { viewBox: `0 0 ${WIDTH} ${HEIGHT}`, preserveAspectRatio: 'none', role: 'img', 'aria-label': spoken(bins) });
    const most = Math.max(1, highest(bins, (bin) => bin.taken + bin.odd));
    const mostBytes = Math.max(1, highest(bins, (bin) => bin.bytes));
    const step = WIDTH / BINS;
    const height = HEIGHT - FOOT - HEAD;
    plot.append(draw('line', { class: 'axis', x1: 0, x2: WIDTH, y1: HEIGHT - FOOT, y2: HEIGHT - FOOT }));
    bins.forEach((bin, index) => {
      const taken = (bin.taken / most) * height;
      const odd = (bin.odd / most) * height;
      if (taken) plot.append(bar('bar', index * step, HEIGHT - FOOT - taken, step, taken));
      if (odd) plot.append(bar('bar odd', index * step, HEIGHT - FOOT - taken - odd, step, odd));
    });
    const points = bins.map((bin, index) => `${(index + 0.5) * step},${HEIGHT - FOOT - (bin.bytes / mostBytes) * height}`);
    plot.append(draw('polyline', { class: 'bytes', points: points.join(' '), 'vector-effect': 'non-scaling-stroke' }));
    byId('plot').replaceChildren(plot, this.edges(start, now));
    byId('scale').textContent = `highest: ${counted(highest(bins, (bin) => bin.taken + bin.odd), 'event')}, ${bytes(highest(bins, (bin) => bin.bytes))}`;
  }

  /** The times stand below the drawing, which is stretched. */
  edges(start, now) {
    return make('p', { className: 'edges' }, make('span', {}, timeOfDay(start).slice(0, 8)), make('span', {}, timeOfDay(now).slice(0, 8)));
  }

  drawSessions() {
    this.sessions = sessionsOf(this.store);
    const newest = [...this.sessions.values()].sort((a, b) => b.last - a.last).slice(0, LANES);
    const start = Math.min(...newest.map((session) => session.first));
    const end = Math.max(...newest.map((session) => session.last), start + 1000);
    const list = byId('sessions');
    const focused = list.contains(document.activeElement) ? document.activeElement.dataset.key : undefined;
    list.replaceChildren(...newest.map((session) => make('li', {}, this.lane(session, start, end))));
    if (focused !== undefined) [...list.querySelectorAll('button')].find((button) => button.dataset.key === focused)?.focus();
    byId('sessions-note').textContent = this.sessions.size > LANES ? `the newest ${LANES} of ${this.sessions.size}` : counted(this.sessions.size, 'session');
    if (!newest.length) list.replaceChildren(make('li', { className: 'quiet' }, 'None yet.'));
  }

  lane(session, start, end) {
    const scale = (time) => ((time - start) / (end - start)) * (WIDTH - 6) + 3;
    const drawing = draw('svg', { viewBox: `0 0 ${WIDTH} 16`, preserveAspectRatio: 'none', 'aria-hidden': 'true' });
    const left = scale(session.first);
    drawing.append(draw('rect', { class: 'reach', x: left - 3, y: 2, width: scale(session.last) - left + 6, height: 12, rx: 3 }));
    for (const [bin, state] of marksOf(this.store, session, scale)) drawing.append(draw('rect', { class: `mark ${state}`, x: bin * (WIDTH / LANE_BINS), y: 4, width: 4, height: 8 }));
    for (const time of session.clocks) drawing.append(draw('rect', { class: 'mark clock', x: scale(Math.min(Math.max(time, start), end)) - 2, y: 0, width: 3, height: 16 }));
    const isChosen = this.store.filter.session === session.key;
    const button = make('button', { type: 'button', title: sessionTitle(this.store, session), 'aria-pressed': String(isChosen) },
      make('span', { className: 'name' }, `${short(session.session)} ${short(session.device ?? '')}`), drawing,
      make('span', { className: 'number' }, session.events.length.toLocaleString('en')));
    button.dataset.key = session.key;
    button.addEventListener('click', () => this.onSession(isChosen ? '' : session.key));
    return button;
  }
}

function bar(name, x, y, step, height) {
  return draw('rect', { class: name, x: x + 1, y, width: step - 2, height: Math.max(height, 1.5) });
}

function binned(store, start, end) {
  const bins = Array.from({ length: BINS }, () => ({ taken: 0, odd: 0, bytes: 0 }));
  const { items } = store;
  // Items are in the order of their times, or nearly so: what is older than the span ends the search.
  for (let at = items.length - 1; at >= 0 && items[at].at >= start; at -= 1) {
    const item = items[at];
    const bin = bins[Math.min(BINS - 1, Math.floor(((item.at - start) / (end - start)) * BINS))];
    if (item.kind === 'event') bin[store.fates.get(item.n)?.taken ? 'taken' : 'odd'] += 1;
    else if (isRequest(item)) bin.bytes += item.bytes;
  }
  return bins;
}

const highest = (bins, valueOf) => Math.max(...bins.map(valueOf));

function spoken(bins) {
  const sum = (name) => bins.reduce((total, bin) => total + bin[name], 0);
  return `${counted(sum('taken') + sum('odd'), 'event')} in this span, ${sum('odd')} of them not taken, ${bytes(sum('bytes'))}`;
}

/** When an event happened; by its arrival where it says no time. */
const timeOf = (event) => {
  event.moment ??= Date.parse(event.time) || event.at;
  return event.moment;
};

/** The sessions of all events, with what happened to their devices' clocks. */
function sessionsOf(store) {
  const sessions = new Map();
  const clocks = [];
  for (const item of store.items) {
    if (item.kind === 'clock') clocks.push(item);
    if (item.kind !== 'event' || !item.session) continue;
    const key = sessionKey(item);
    let session = sessions.get(key);
    const time = timeOf(item);
    if (!session) {
      session = { key, session: item.session, device: item.device, app: item.app, first: time, last: time, events: [], clocks: [] };
      sessions.set(key, session);
    }
    session.first = Math.min(session.first, time);
    session.last = Math.max(session.last, time);
    session.events.push(item);
  }
  for (const clock of clocks)
    for (const session of sessions.values())
      if (session.device === clock.device && session.app === clock.app) session.clocks.push(clock.at);
  return sessions;
}

const WEIGHT = { '': 0, again: 1, odd: 2 };

/** How an event is marked: taken at once, at a later attempt, or not. */
function markOf(fate) {
  if (!fate?.taken) return 'odd';
  return fate.attempts > 1 ? 'again' : '';
}

const isOdd = (store, event) => !store.fates.get(event.n)?.taken;

/** Where a session has marks: places on its lane, each once, however many events are there. */
function marksOf(store, session, scale) {
  const marks = new Map();
  for (const event of session.events) {
    const bin = Math.min(LANE_BINS - 1, Math.floor((scale(timeOf(event)) / WIDTH) * LANE_BINS));
    const state = markOf(store.fates.get(event.n));
    if (!marks.has(bin) || WEIGHT[state] > WEIGHT[marks.get(bin)]) marks.set(bin, state);
  }
  return marks;
}

function sessionTitle(store, session) {
  const odd = session.events.filter((event) => isOdd(store, event)).length;
  return [`Session ${session.session}`, `device ${session.device ?? 'unknown'}`, session.app, counted(session.events.length, 'event'),
    odd ? `${odd} not taken` : '', session.clocks.length ? counted(session.clocks.length, 'clock correction') : ''].filter(Boolean).join(', ');
}

// The live page: reads what happened, follows what happens, and puts list, details, drawings and buttons together.
import { byId, bytes, counted, make, short } from './dom.js';
import { Charts } from './charts.js';
import { Details } from './details.js';
import { Faults } from './faults.js';
import { List } from './list.js';
import { Store, isRequest } from './store.js';

const FIRST_PAGE = 500;
const PAGE = 5000;
const RESTART_PAUSE = 2000; // milliseconds
const DRAWING_PAUSE = 400; // milliseconds between two drawings of the charts, at least

const store = new Store();
const list = new List(store, (item, goThere) => {
  details.show(item);
  if (goThere) byId('details').focus();
});
const details = new Details(store, (number) => {
  if (list.placeOf(number) < 0) clearFilters();
  list.select(number, true);
});
const charts = new Charts(store, (session) => {
  addSessionOption(session);
  byId('session').value = session;
  applyFilters();
});
const faults = new Faults();

let run = '';
let stream;
let restart; // the timer of the next beginning
let beginnings = 0; // what an earlier one still waits for is nothing to the newest
let totals = emptyTotals();

// --- What is known in all.

function emptyTotals() {
  return { events: 0, taken: 0, refused: 0, bytes: 0 };
}

function count(items) {
  for (const item of items) {
    if (item.kind === 'event') totals.events += 1;
    if (!isRequest(item)) continue;
    totals.bytes += item.bytes;
    if (item.verdict !== 'ok') totals.refused += 1;
    if (item.taken && item.records) totals.taken += item.records;
  }
}

function showTotals() {
  const shown = [['events', totals.events], ['taken', totals.taken], ['requests refused', totals.refused]];
  byId('totals').replaceChildren(...[...shown.map(([name, value]) => [name, value.toLocaleString('en')]), ['in all', bytes(totals.bytes)]].map(
    ([name, value]) => make('div', {}, make('dt', {}, name), make('dd', {}, value))));
}

function showCount() {
  byId('count').textContent = store.isFiltered
    ? `${store.shown.length.toLocaleString('en')} of ${store.items.length.toLocaleString('en')}`
    : counted(store.items.length, 'line');
  const nothing = store.shown.length === 0;
  byId('empty').hidden = !nothing;
  byId('list').hidden = nothing;
  if (nothing) byId('empty').replaceChildren(...(store.items.length ? nothingPasses() : nothingYet()));
}

let hello = { authority: '', applications: ['com.example.app'] };

function nothingYet() {
  const command = [`export SSL_CERT_FILE=${hello.authority}`,
    `kestrova --api-host ${location.host} --bundle-id ${hello.applications[0]} --secret-file secret \\`, '  event opened --data \'{"screen": "home"}\''];
  return [make('h2', {}, 'Nothing has arrived yet'), make('p', {}, 'What your application sends appears here at once. For example:'),
    make('pre', { tabIndex: 0 }, command.join('\n'))];
}

function nothingPasses() {
  const button = make('button', { type: 'button' }, 'Clear the filters');
  button.addEventListener('click', clearFilters);
  return [make('h2', {}, 'Nothing passes the filters'), button];
}

// --- Drawing, no more often than needed.

let drawingIsDue = false;
let lastDrawing = 0;
let pause = DRAWING_PAUSE; // longer where there is much to draw, so that most of the time is left for everything else

function drawSoon() {
  showTotals();
  showCount();
  if (drawingIsDue) return;
  drawingIsDue = true;
  setTimeout(() => {
    drawingIsDue = false;
    const start = Date.now();
    charts.draw();
    offerSessions();
    lastDrawing = Date.now();
    pause = Math.max(DRAWING_PAUSE, 5 * (lastDrawing - start));
  }, Math.max(0, pause - (Date.now() - lastDrawing)));
}

// --- Filters.

function addSessionOption(key) {
  const select = byId('session');
  if ([...select.options].some((option) => option.value === key)) return;
  const [, device, session] = key.split('\n');
  select.append(make('option', { value: key }, `${short(session)} of ${short(device || 'unknown')}`));
}

function offerSessions() {
  const newest = [...charts.sessions.values()].sort((a, b) => b.last - a.last).slice(0, 100);
  for (const session of newest) addSessionOption(session.key);
}

function applyFilters() {
  store.setFilter({ text: byId('search').value, kind: byId('kind').value, verdict: byId('verdict').value, session: byId('session').value });
  list.unseen = 0;
  list.box.scrollTop = 0;
  list.ask();
  drawSoon();
}

function clearFilters() {
  for (const id of ['search', 'kind', 'verdict', 'session']) byId(id).value = '';
  applyFilters();
}

for (const id of ['kind', 'verdict', 'session']) byId(id).addEventListener('change', applyFilters);
byId('search').addEventListener('input', applyFilters);
byId('clear-filters').addEventListener('click', clearFilters);
document.addEventListener('keydown', (event) => {
  const isTyping = event.target.matches('input, textarea, select');
  if (event.key === '/' && !isTyping && !event.ctrlKey && !event.metaKey) {
    event.preventDefault();
    byId('search').focus();
  } else if (event.key === 'Escape' && byId('details').contains(event.target)) {
    byId('list').focus();
  }
});

// --- The server.

function showConnection(state, text) {
  const line = byId('connection');
  if (line.textContent === text) return;
  line.dataset.state = state;
  line.textContent = text;
}

async function readPage(query) {
  const answer = await fetch(`/dev/feed?${query}`);
  if (!answer.ok) throw new Error(`the server answers ${answer.status}`);
  return answer.json();
}

/** Reads the newest, follows the server from there, and then reads what is older, piece by piece. */
async function begin(beginning) {
  stream?.close();
  const page = await readPage(`limit=${FIRST_PAGE}`);
  if (beginning !== beginnings) return;
  run = page.run;
  store.reset();
  totals = emptyTotals();
  takeOlder(page.items);
  applyFilters();
  follow();
  await readOlder(beginning, page.oldest);
}

async function readOlder(beginning, oldest) {
  let hasRoom = true;
  while (hasRoom && store.items.length && store.oldest > oldest) {
    const page = await readPage(`before=${store.oldest}&limit=${PAGE}`);
    if (beginning !== beginnings || page.run !== run || !page.items.length) return;
    hasRoom = takeOlder(page.items);
  }
}

/** False when there is no room for more. */
function takeOlder(items) {
  const hasRoom = store.prepend(items);
  count(items);
  list.ask();
  drawSoon();
  return hasRoom;
}

function takeNewer(items) {
  count(items);
  const passing = store.append(items);
  list.grow(passing);
  const last = items.findLast((item) => item.behaviour);
  if (last) faults.show(last.behaviour);
  details.refresh();
  drawSoon();
}

function follow() {
  stream = new EventSource(`/dev/feed/live?after=${store.newest}`);
  stream.addEventListener('hello', (event) => {
    hello = JSON.parse(event.data);
    showConnection('live', `Live at ${location.host}`);
    faults.show(hello.behaviour);
    showCount();
    // A server that was started anew counts from the beginning.
    if (hello.run !== run) start();
  });
  stream.addEventListener('message', (event) => takeNewer(JSON.parse(event.data)));
  stream.addEventListener('error', () => {
    showConnection('lost', 'The server cannot be reached; trying again');
    if (stream.readyState === EventSource.CLOSED) startLater();
  });
}

function start() {
  clearTimeout(restart);
  beginnings += 1;
  const beginning = beginnings;
  begin(beginning).catch((error) => {
    if (beginning !== beginnings) return;
    showConnection('lost', `The server cannot be reached: ${error.message}`);
    startLater();
  });
}

function startLater() {
  clearTimeout(restart);
  restart = setTimeout(start, RESTART_PAUSE);
}

// A span of time moves on also when nothing arrives.
setInterval(() => {
  if (!document.hidden) charts.drawPlot();
}, 5000);
start();

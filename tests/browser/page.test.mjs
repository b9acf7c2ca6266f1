// The live page in a real browser, with the real command as the client.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import http from 'node:http';
import { after, before, test } from 'node:test';
import { APP, LIMIT, Server, animatedGif, batch, now, openBrowser, openPage, row } from './stage.mjs';

let browser;
before(async () => { browser = await openBrowser(); });
after(async () => browser?.close());

/** A test with a server and a page of its own. Nothing may go wrong in the page, and nothing may be fetched from elsewhere. */
function pageTest(name, run, options = {}) {
  test(name, { timeout: 4 * LIMIT }, async () => {
    const server = await Server.start();
    let page;
    try {
      page = await openPage(browser, server, options);
      await run(page, server);
      assert.deepEqual(page.faults, []);
      assert.deepEqual(page.asked.filter((url) => new URL(url).origin !== server.url), []);
    } finally {
      await page?.context().close();
      await server.end();
    }
  });
}

const namesShown = (page) => page.locator('.row .what b').allTextContents();
/** Until the rows have these names, or say where they begin, in this order; a frame before may have some of them already. */
const namesBecome = (page, ...names) => page.waitForFunction((wanted) => {
  const rows = [...document.querySelectorAll('.row .what b')].map((name) => name.textContent);
  return rows.length === wanted.length && rows.every((name, at) => name === wanted[at] || name.startsWith(`${wanted[at]} `));
}, names);
const focused = (page) => page.evaluate(() => document.activeElement.id || document.activeElement.tagName);
const settled = (page) => page.evaluate(() => new Promise((resolve) => { requestAnimationFrame(() => requestAnimationFrame(resolve)); }));
/** Waits until the page says that this, and nothing else, is in force. */
const inForce = (page, text) => page.waitForFunction((wanted) => document.getElementById('misbehaviour').textContent === wanted, text);
const textOf = (page, selector) => page.locator(selector).textContent();

pageTest('an empty page tells how to send the first event', async (page, server) => {
  assert.equal(await textOf(page, '#empty h2'), 'Nothing has arrived yet');
  const command = await textOf(page, '#empty pre');
  assert.match(command, new RegExp(`SSL_CERT_FILE=${server.authority}`));
  assert.match(command, new RegExp(`--api-host localhost:${server.port} --bundle-id ${APP}`));
});

pageTest('events appear live, newest first', async (page, server) => {
  await page.evaluate(() => { window.isTheSamePage = true; });
  const first = await server.client(['event', 'opened', '--data', '{"screen":"home"}']);
  assert.equal(first.status, 0, first.errors);
  await row(page, 'opened').waitFor();
  assert.equal(await row(page, 'opened').locator('.badge').textContent(), 'taken');
  assert.match(await row(page, 'opened').textContent(), /"screen":"home"/);
  assert.equal((await server.client(['event', 'shared'])).status, 0);
  await row(page, 'shared').waitFor();
  const names = await namesShown(page);
  assert.ok(names.indexOf('shared') < names.indexOf('opened'), String(names));
  assert.equal(await page.evaluate(() => window.isTheSamePage), true);
});

pageTest('an event shows all that is known of it', async (page, server) => {
  await server.post('/events', batch([{ name: 'opened', data: { depth: { n: 1 } }, session: 'session-77', time: '2026-11-20T20:19:39.000Z' }]));
  await row(page, 'opened').click();
  const details = await textOf(page, '#details');
  for (const text of ['2026-11-20T20:19:39.000Z', 'session-77', 'device-1', APP, '"depth": {', '1 time', 'The nonce is new.'])
    assert.ok(details.includes(text), `${text} is not in ${details}`);
});

pageTest('filters narrow the list', async (page, server) => {
  await server.post('/events', batch([{ name: 'opened', session: 'one' }, { name: 'shared', session: 'two', data: { place: 'Bern' } }]));
  await server.post('/shares', JSON.stringify({ data: { text: 'x' } }));
  await server.post('/events', batch([{ name: 'late', session: 'two' }]), { ahead: -3600 });
  await row(page, 'late').waitFor();

  await page.fill('#search', 'bern');
  await namesBecome(page, 'shared');
  assert.equal(await textOf(page, '#count'), '1 of 6');

  await page.fill('#search', '');
  await page.selectOption('#kind', 'share');
  await namesBecome(page, 'Share');

  await page.selectOption('#kind', 'event');
  await page.selectOption('#verdict', 'refused');
  await namesBecome(page, 'late');

  await page.click('#clear-filters');
  await page.locator('.sessions button', { hasText: 'one' }).click();
  await namesBecome(page, '2 events', 'opened');
  await page.locator('.sessions button[aria-pressed="true"]', { hasText: 'one' }).waitFor();

  await page.fill('#search', 'no such thing');
  await page.waitForSelector('#empty h2');
  await page.click('#empty button');
  await row(page, 'late').waitFor();
});

pageTest('new events obey the filter', async (page, server) => {
  await page.fill('#search', 'wanted');
  await server.post('/events', batch([{ name: 'unwanted-not' }, { name: 'other' }]));
  await row(page, 'unwanted-not').waitFor();
  assert.deepEqual(await namesShown(page), ['unwanted-not']);
});

pageTest('a wrong secret is explained by the text that was signed', async (page, server) => {
  const refused = await server.client(['event', 'opened'], { secret: 'another secret' });
  assert.equal(refused.status, 4, refused.output);
  await row(page, 'Bad mac').click();
  const check = page.locator('.check.wrong');
  assert.match(await check.textContent(), /Either a line of the text differs from what the client has signed, or the secret does\./);
  const lines = await check.locator('.signed tr').evaluateAll((rows) => rows.map((one) => [...one.children].map((cell) => cell.textContent)));
  assert.deepEqual(lines.map(([name]) => name),
    ['what is signed', 'time', 'nonce', 'method', 'path and query', 'host', 'port', 'payload hash', 'ext (device)']);
  assert.deepEqual([lines[0][1], lines[3][1], lines[4][1], lines[5][1], lines[6][1]], ['hawk.1.header', 'POST', '/events', 'localhost', String(server.port)]);
});

pageTest('neither the MAC that came nor the one that was computed is shown', async (page, server) => {
  const body = batch([{ name: 'opened' }]);
  const signing = { time: now(), nonce: 'a-nonce' };
  const [forged, right] = ['another secret', undefined].map((secret) => server.authorization('/events', body, { ...signing, secret }));
  const macs = [forged, right].map((header) => / mac="([^"]+)"/.exec(header)[1]);
  assert.notEqual(macs[0], macs[1]);
  const shown = [];
  for (const [header, line] of [[forged, 'Bad mac'], [right, '1 event']]) {
    await server.send('/events', Buffer.from(body), { Authorization: header, 'Content-Type': 'application/json' });
    await row(page, line).click();
    await page.locator('#details', { hasText: 'Signature' }).waitFor();
    shown.push(await page.content());
  }
  shown.push((await server.send('/dev/feed', Buffer.alloc(0), {}, 'GET')).text);
  for (const text of shown) {
    assert.ok(text.includes('a-nonce'), 'what is looked at is where the signature is told');
    for (const mac of macs) assert.ok(!text.includes(mac) && !text.includes(mac.slice(0, 20)), mac);
  }
});

pageTest('hash, nonce and clock are explained by what came and what was computed', async (page, server) => {
  const body = batch([{ name: 'opened' }]);
  await server.post('/events', body, { spoil: (sent) => Buffer.from(String(sent).replace('opened', 'closed')) });
  await row(page, 'Bad payload hash').first().click();
  const payload = page.locator('.check[data-step="payload"]');
  assert.match(await payload.textContent(), /The hash does not fit the body/);
  const hashes = await payload.locator('dd').allTextContents();
  assert.equal(hashes.length, 2);
  assert.notEqual(hashes[0], hashes[1]);

  const second = batch([{ name: 'twice' }]);
  await server.post('/events', second, { nonce: 'the-nonce' });
  await server.post('/events', second, { nonce: 'the-nonce' });
  await row(page, 'Invalid nonce').first().click();
  assert.match(await page.locator('.check[data-step="nonce"]').textContent(), /The nonce was used before: number \d+, at .*the-nonce/);

  await server.post('/events', batch([{ name: 'early' }]), { ahead: 7200 });
  await row(page, 'Stale timestamp').first().click();
  assert.match(await page.locator('.check.wrong').textContent(), /7[12]\d\d\.\d s ahead of the server; 60 s to either side are allowed\..*the server's time/);
});

pageTest('a GIF shows', async (page, server) => {
  fs.writeFileSync(server.file('cat.gif'), animatedGif());
  const uploaded = await server.client(['upload', server.file('cat.gif'), '--share-id', 'abc123', '--wait']);
  assert.equal(uploaded.status, 0, uploaded.output + uploaded.errors);
  await row(page, 'GIF for abc123').click();
  await page.waitForFunction(() => document.querySelector('.gif')?.naturalWidth === 64);
});

pageTest('what is no GIF is said to be none', async (page, server) => {
  await server.post('/gifs?shareId=abc', '<script>document.title = "hacked"</script>', { type: 'image/gif' });
  await row(page, 'GIF for abc').click();
  await page.getByText('What was uploaded cannot be shown as a GIF, or has gone.').waitFor();
});

pageTest('the button 500 changes the fate of a client, and healing brings its event back', async (page, server) => {
  assert.equal((await server.client(['event', 'before'])).status, 0);
  await page.click('[data-fault="error"]');
  await page.waitForSelector('[data-fault="error"][aria-pressed="true"]');
  assert.equal(await textOf(page, '#misbehaviour'), 'answers 500 until healed');
  const kept = await server.client(['event', 'during']);
  assert.equal(kept.status, 3, kept.output);
  const line = row(page, 'during');
  await line.waitFor();
  assert.equal(await line.locator('.badge').textContent(), 'answered 500');
  await row(page, 'on purpose').first().waitFor();

  await page.click('#heal-now');
  await page.waitForSelector('#misbehaving', { state: 'hidden' });
  await row(page, 'The server behaves').waitFor();
  assert.equal((await server.client(['flush'])).status, 0);
  await line.locator('.badge.taken').waitFor();
  assert.equal(await line.count(), 1);
  await line.click();
  assert.match(await textOf(page, '#details'), /Sent2 times/);
});

pageTest('a server that is away keeps a client waiting until it is back', async (page, server) => {
  await page.selectOption('#fault-count', '3');
  await page.click('[data-fault="away"]');
  await inForce(page, 'away for the next 3 requests');
  assert.equal((await server.client(['event', 'unheard'])).status, 3);
  await row(page, 'unheard').locator('.badge', { hasText: 'no answer' }).waitFor();
  await page.click('[data-fault="away"]');
  await page.waitForSelector('[data-fault="away"][aria-pressed="false"]');
  assert.equal((await server.client(['flush'])).status, 0);
  await row(page, 'unheard').locator('.badge.taken').waitFor();
});

pageTest('what a client wrote back comes in a later batch, and is told so', async (page, server) => {
  await page.click('[data-fault="away"]');
  await page.waitForSelector('[data-fault="away"][aria-pressed="true"]');
  assert.equal((await server.client(['event', 'kept'])).status, 3);
  await page.click('#heal');
  await page.waitForSelector('#misbehaving', { state: 'hidden' });
  assert.equal((await server.client(['event', 'next'])).status, 0);
  await row(page, '1 written back before').click();
  assert.match(await textOf(page, '#details'), /1 event came before in batches that were not taken/);
  await row(page, 'kept').locator('.badge.taken').waitFor();
  await page.locator('.sessions .mark.again').first().waitFor();
});

pageTest('a stale clock makes the client correct its own', async (page, server) => {
  assert.equal((await server.client(['event', 'before'])).status, 0);
  await page.click('[data-fault="clock"]');
  await inForce(page, 'clock +3600.0 s');
  const sent = await server.client(['event', 'corrected']);
  assert.equal(sent.status, 0, sent.output);
  await row(page, 'Stale timestamp').first().waitFor();
  // The way of a request to a busy server takes its time, and the clock is told in whole seconds.
  const correction = await row(page, 'Clock corrected by').locator('b').textContent();
  const seconds = Number(/^Clock corrected by \+(\d+\.\d) s$/.exec(correction)?.[1]);
  assert.ok(Math.abs(seconds - 3600) < LIMIT / 1000, correction);
  await row(page, 'corrected').locator('.badge.taken').first().waitFor();
});

pageTest('slow answers and a directive of your own reach the client', async (page, server) => {
  await page.click('[data-fault="slow"]');
  await inForce(page, 'answers after 3 s');
  const start = Date.now();
  assert.equal((await server.client(['event', 'slow'])).status, 0);
  assert.ok(Date.now() - start >= 3000);
  await page.click('#heal');

  await page.click('summary');
  await page.fill('#directive', '{"referralCode": ');
  await page.click('#send-directive');
  await page.locator('#fault-error', { hasText: 'That is no JSON' }).waitFor();
  await page.fill('#directive', '[1]');
  await page.click('#send-directive');
  await page.locator('#fault-error', { hasText: 'directives must be an object' }).waitFor();
  await page.fill('#directive', '{"referralCode": "abcdefgh"}');
  await page.click('#send-directive');
  await inForce(page, 'directive {"referralCode":"abcdefgh"}');
  assert.equal(await textOf(page, '#fault-error'), '');
  const directed = await server.client(['event', 'directed']);
  assert.equal(directed.status, 0);
  const known = await server.client(['status']);
  assert.match(directed.output + known.output, /abcdefgh/);
});

pageTest('hostile names are text', async (page, server) => {
  const hostile = '<img src=x onerror="document.title=\'hacked\'">';
  await server.post('/events', batch([{ name: hostile, data: { [hostile]: hostile }, session: hostile, time: hostile }]));
  await server.post(`/events?x=%3Cscript%3E`, batch([{ name: '"><svg onload=alert(1)>', session: '\n\u202e' }]));
  await row(page, hostile).waitFor();
  await page.locator('.sessions button', { hasText: '<img' }).first().waitFor();
  await row(page, hostile).first().click();
  const details = await textOf(page, '#details');
  assert.ok(details.includes(hostile));
  await settled(page);
  assert.equal(await page.locator('.row img, #details img, .sessions img, .row svg').count(), 0);
  assert.equal(await page.title(), 'Kestrova development server');
});

pageTest('the page is used by keyboard alone', async (page, server) => {
  await server.post('/events', batch(Array.from({ length: 60 }, (_, index) => ({ name: `event-${index}` }))));
  await row(page, 'event-59').waitFor();
  await page.locator('body').press('Tab');
  assert.equal(await page.evaluate(() => document.activeElement.className), 'skip');
  await page.keyboard.press('/');
  assert.equal(await focused(page), 'search');
  const order = [];
  while (order.at(-1) !== 'list' && order.length < 12) {
    await page.keyboard.press('Tab');
    order.push(await focused(page));
  }
  assert.deepEqual(order, ['kind', 'verdict', 'session', 'clear-filters', 'list']);

  // The list is drawn with the next frame.
  const isChosen = (position, name) =>
    page.locator(`.row[aria-selected="true"][aria-posinset="${position}"] b`, { hasText: new RegExp(`^${name}$`) }).waitFor();
  await page.keyboard.press('ArrowDown');
  await isChosen(1, '60 events');
  await page.keyboard.press('ArrowDown');
  await isChosen(2, 'event-59');
  await page.keyboard.press('End');
  await isChosen(61, 'event-0');
  const active = await page.getAttribute('#list', 'aria-activedescendant');
  assert.equal(await page.locator(`#${active} b`).textContent(), 'event-0');
  await page.keyboard.press('Home');
  await page.waitForSelector('.row[aria-selected="true"][aria-posinset="1"]');
  await page.keyboard.press('ArrowDown');
  await page.keyboard.press('Enter');
  assert.equal(await focused(page), 'details');
  await page.keyboard.press('Escape');
  assert.equal(await focused(page), 'list');
  const outline = await page.evaluate(() => getComputedStyle(document.getElementById('list')).outlineStyle);
  assert.equal(outline, 'solid');

  await page.focus('[data-fault="error"]');
  await page.keyboard.press('Enter');
  await page.waitForSelector('[data-fault="error"][aria-pressed="true"]');
  await page.keyboard.press('Space');
  await page.waitForSelector('[data-fault="error"][aria-pressed="false"]');
});

pageTest('every control has a name', async (page, server) => {
  await server.post('/events', batch([{ name: 'opened' }]));
  await row(page, 'opened').click();
  const nameless = await page.evaluate(() => [...document.querySelectorAll('button, input, select, textarea, [role="listbox"], svg[role="img"], img')]
    .filter((one) => !(one.getAttribute('aria-label') || one.textContent.trim() || one.labels?.length || one.hasAttribute('alt')))
    .map((one) => one.outerHTML));
  assert.deepEqual(nameless, []);
  const spoken = page.getByRole('img', { name: /^1 event in this span, 0 of them not taken, \d+ B$/ });
  await spoken.waitFor();
});

pageTest('what is read stays in its place when more arrives', async (page, server) => {
  await server.post('/events', batch(Array.from({ length: 100 }, (_, index) => ({ name: `old-${index}` }))));
  await row(page, 'old-99').waitFor();
  await page.evaluate(() => { document.getElementById('list').scrollTop = 34 * 50; });
  await row(page, /^.*old-49/).waitFor();
  const place = () => page.evaluate(() => [...document.querySelectorAll('.row')].find((one) => one.querySelector('b').textContent === 'old-49').getBoundingClientRect().top);
  const was = await place();
  await server.post('/events', batch([{ name: 'new' }]));
  await page.getByText('↑ 2 new').waitFor();
  assert.ok(Math.abs(await place() - was) < 1);
  await page.click('#newest');
  await row(page, /new/).first().waitFor();
  await page.waitForSelector('#newest', { state: 'hidden' });
});

pageTest('the page goes on with a server that was started anew', async (page, server) => {
  await server.post('/events', batch([{ name: 'before' }]));
  await row(page, 'before').waitFor();
  const { port } = server;
  assert.equal(await server.stop(), 0);
  await page.waitForSelector('#connection[data-state="lost"]');
  await server.run(port, []);
  await page.waitForSelector('#connection[data-state="live"]');
  await page.getByText('Nothing has arrived yet').waitFor();
  server.agent = undefined;
  await server.post('/events', batch([{ name: 'after' }]));
  await row(page, 'after').waitFor();
  assert.equal(await row(page, 'before').count(), 0);
});

pageTest('a page of another origin can neither give orders nor read', async (page, server) => {
  const other = http.createServer((request, answer) => answer.setHeader('Content-Type', 'text/html').end('<p>elsewhere</p>'));
  await new Promise((resolve) => { other.listen(0, '127.0.0.1', resolve); });
  const context = await browser.newContext({ ignoreHTTPSErrors: true });
  try {
    const elsewhere = await context.newPage();
    await elsewhere.goto(`http://localhost:${other.address().port}/`);
    const outcomes = await elsewhere.evaluate(async (url) => {
      const order = (options) => fetch(`${url}/dev/behaviour`, { method: 'POST', body: '{"drop": 5}', ...options }).then((answer) => answer.type, () => 'failed');
      const read = fetch(`${url}/dev/feed`).then(() => 'read', () => 'failed');
      return [await order({ mode: 'no-cors' }), await order({}), await order({ headers: { 'X-Kestrova-Page': '1' } }), await read];
    }, server.url);
    assert.deepEqual(outcomes, ['opaque', 'failed', 'failed', 'failed']); // the first reaches the server, which refuses it
    const state = await server.send('/dev/behaviour', Buffer.alloc(0), {}, 'GET');
    assert.equal(JSON.parse(state.text).drop, 0);
  } finally {
    await context.close();
    other.close();
  }
});

/** What a function tells of a store of the page's own kind with little room. */
const storing = (page, run) => page.evaluate(`(async () => {
  const { Store } = await import('/dev/page/store.js');
  const store = new Store({ lines: 100, length: 20000 });
  const events = (first, count, length) => Array.from({ length: count }, (_, index) => (
    { n: first + index, kind: 'event', at: 0, name: 'e', data: 'x'.repeat(length) }));
  const textOf = (items) => JSON.stringify(items.map(({ n, kind, at, name, data, events, verdict, taken }) => ({ n, kind, at, name, data, events, verdict, taken })));
  return (${run})({ store, events, length: () => textOf(store.items).length });
})()`);

pageTest('the page holds no more than it has room for, however few the lines', async (page) => {
  const told = await storing(page, ({ store, events, length }) => {
    let most = 0;
    for (let first = 1; first <= 100; first += 3) {
      const request = { n: first + 2, kind: 'batch', at: 0, verdict: 'ok', taken: true, events: [[first, first + 1]] };
      store.append([...events(first, 2, 2000), request]);
      most = Math.max(most, length());
    }
    const numbers = store.items.map((item) => item.n);
    return { most, least: length(), numbers, shown: store.shown.map((item) => item.n), fates: [...store.fates.keys()], events: store.items.filter((item) => item.kind === 'event').map((item) => item.n) };
  });
  assert.ok(told.most <= 21000 && told.least > 15000, JSON.stringify(told));
  assert.equal(told.numbers.at(-1), 102);
  assert.deepEqual(told.shown, told.numbers);
  assert.deepEqual(told.fates, told.events);
});

pageTest('older lines come as long as there is room for them', async (page) => {
  const byLength = await storing(page, ({ store, events }) => {
    store.append(events(101, 4, 3000));
    return [store.prepend(events(100, 1, 3000)), store.prepend(events(90, 10, 3000).reverse()), store.items.map((item) => item.n), store.shown[0].n];
  });
  assert.deepEqual(byLength, [true, false, [99, 100, 101, 102, 103, 104], 99]);
  const byLines = await storing(page, ({ store, events }) => {
    store.append(events(101, 98, 1));
    return [store.prepend(events(100, 1, 1)), store.prepend(events(97, 3, 1).reverse()), store.items.length, store.oldest];
  });
  assert.deepEqual(byLines, [true, false, 100, 99]);
});

pageTest('the newest line is kept, however long', async (page) => {
  const numbers = await storing(page, ({ store, events }) => {
    store.append(events(1, 3, 10));
    store.append(events(4, 1, 50000));
    return store.items.map((item) => item.n);
  });
  assert.deepEqual(numbers, [4]);
});

/** A page whose first stream is refused, so that it begins anew after its pause. */
async function pageOfABrokenStream(server, routeOlder, run) {
  const context = await browser.newContext({ ignoreHTTPSErrors: true });
  context.setDefaultTimeout(LIMIT);
  try {
    const page = await context.newPage();
    page.begun = 0;
    page.on('request', (request) => { page.begun += Number(request.url().includes('/dev/feed?limit=')); });
    for (const [url, route] of [['**/dev/feed/live?*', (first) => first.fulfill({ status: 503 })], ['**/dev/feed?before=*', routeOlder]]) {
      let count = 0;
      await page.route(url, (one) => { count += 1; return count === 1 ? route(one) : one.continue(); });
    }
    await run(page);
  } finally {
    await context.close();
  }
}

/** Once more is answered, what was answered before has been taken. */
const answered = (page) => page.evaluate(() => fetch('/dev/feed?before=2').then((answer) => answer.json()));
const live = (page) => page.waitForSelector('#connection[data-state="live"]');
const shownEvents = (page) => page.locator('#totals div', { hasText: 'events' }).locator('dd').textContent();

test('what an earlier beginning still waited for is not taken after a broken stream', { timeout: 4 * LIMIT }, async () => {
  const server = await Server.start();
  try {
    for (const name of ['one', 'two']) await server.post('/events', batch(Array.from({ length: 500 }, () => ({ name }))));
    let held;
    let release;
    const isReleased = new Promise((resolve) => { release = resolve; });
    const hold = async (route) => { held = route.request(); await isReleased; await route.continue(); };
    await pageOfABrokenStream(server, hold, async (page) => {
      await page.goto(`${server.url}/`);
      await live(page);
      await page.locator('#count', { hasText: '1,002 lines' }).waitFor();
      release();
      await (await held.response()).finished();
      await answered(page);
      assert.equal(await shownEvents(page), '1,000');
      assert.equal(await textOf(page, '#count'), '1,002 lines');
    });
  } finally {
    await server.end();
  }
});

test('a page that has lost the server in two ways begins anew once', { timeout: 4 * LIMIT }, async () => {
  const server = await Server.start();
  try {
    await server.post('/events', batch(Array.from({ length: 500 }, () => ({ name: 'one' }))));
    await server.post('/events', batch([{ name: 'two' }]));
    await pageOfABrokenStream(server, (route) => route.abort(), async (page) => {
      await page.clock.install();
      const aborted = page.waitForEvent('requestfailed');
      const refused = page.waitForResponse((answer) => answer.url().includes('/dev/feed/live') && answer.status() === 503);
      await page.goto(`${server.url}/`);
      await Promise.all([aborted, refused]);
      await page.waitForSelector('#connection[data-state="lost"]');
      await answered(page);
      await page.clock.runFor(10000);
      await live(page);
      await page.clock.runFor(10000);
      assert.equal(page.begun, 2);
    });
  } finally {
    await server.end();
  }
});

for (const colorScheme of ['light', 'dark']) {
  pageTest(`the page is ${colorScheme} where that is preferred`, async (page, server) => {
    await server.post('/events', batch([{ name: 'opened' }]));
    await row(page, 'opened').waitFor();
    const [red] = await page.evaluate(() => getComputedStyle(document.body).backgroundColor.match(/\d+/g).map(Number));
    assert.ok(colorScheme === 'dark' ? red < 60 : red > 200, `red is ${red}`);
  }, { colorScheme });
}

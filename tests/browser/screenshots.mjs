// Pictures of the live page's main states: node tests/browser/screenshots.mjs FOLDER
import fs from 'node:fs';
import path from 'node:path';
import { Server, animatedGif, batch, openBrowser, openPage, row } from './stage.mjs';

const folder = process.argv[2] ?? 'build/screenshots';
fs.mkdirSync(folder, { recursive: true });

const browser = await openBrowser();
const server = await Server.start();

const NAMES = ['opened', 'tapped', 'shared', 'searched', 'keyboard-shown'];
const device = (number) => `3F2504E0-4F89-41D3-9A0C-0305E82C330${number}`;

/** A device's session: some events over the last minutes. */
function session(number, count, minutesAgo) {
  return Array.from({ length: count }, (_, index) => ({
    name: NAMES[(index * 3 + number) % NAMES.length], data: { screen: ['home', 'detail', 'settings'][index % 3], position: index },
    session: `7C9E6679-7425-40DE-944B-E07FC1F9000${number}`, time: new Date(Date.now() - minutesAgo * 60000 + index * 9000).toISOString(),
  }));
}

/** Something of every kind: good and bad requests, retries, a clock, shares, a GIF. */
async function tellAStory() {
  await server.post('/events', batch(session(1, 30, 8)), { device: device(1) });
  await server.post('/events', batch(session(2, 12, 5)), { device: device(2) });
  await server.misbehave({ status: { code: 503, next: 2 } });
  const body = batch(session(3, 8, 3));
  for (let attempt = 0; attempt < 3; attempt += 1) await server.post('/events', body, { device: device(3) });
  await server.post('/shares', JSON.stringify({ data: { data: { text: 'look at this' }, URL: 'https://share.example.com/ab' } }), { device: device(1) });
  await server.post('/gifs?shareId=BcDeFgHiJ', animatedGif(96), { device: device(1), type: 'image/gif' });
  await server.post('/events', batch(session(4, 3, 1)), { device: device(4), ahead: -5400 });
  await server.post('/events', batch(session(4, 3, 1)), { device: device(4) });
  await server.client(['event', 'opened'], { secret: 'another secret' });
  await server.post('/events', batch(session(5, 2, 0)), { device: device(5), spoil: (sent) => Buffer.from(String(sent).replace('home', 'away')) });
  await server.misbehave({ drop: 1 });
  await server.post('/events', batch(session(2, 4, 0)), { device: device(2) }).catch(() => undefined);
}

/** Waits until charts and rows are drawn, and takes the picture. */
async function picture(page, name) {
  await page.waitForFunction(() => document.querySelectorAll('.sessions li').length > 0);
  await page.evaluate(() => Promise.all(document.getAnimations().map((animation) => animation.finished)));
  await page.screenshot({ path: path.join(folder, `${name}.png`) });
  console.log(path.join(folder, `${name}.png`));
}

const choose = async (page, text) => {
  await row(page, text).first().click();
  await page.waitForSelector('.row[aria-selected="true"]');
};

try {
  const page = await openPage(browser, server);
  await picture(page, 'empty');
  await tellAStory();
  await page.locator('.sessions button').nth(4).waitFor();
  await picture(page, 'story');
  await choose(page, 'Bad mac');
  await picture(page, 'bad-signature');
  await choose(page, 'Bad payload hash');
  await picture(page, 'bad-payload');
  await choose(page, 'Stale timestamp');
  await picture(page, 'stale-clock');
  await choose(page, 'GIF for');
  await page.waitForFunction(() => document.querySelector('.gif')?.naturalWidth > 0);
  await picture(page, 'gif');
  await page.selectOption('#kind', 'event');
  await page.fill('#search', 'settings');
  await choose(page, 'settings');
  await picture(page, 'filtered');
  await page.click('#clear-filters');
  await page.click('[data-fault="error"]');
  await page.click('[data-fault="slow"]');
  await page.waitForSelector('[data-fault="slow"][aria-pressed="true"]');
  await page.click('.faults summary');
  await picture(page, 'misbehaving');

  const dark = await openPage(browser, server, { colorScheme: 'dark' });
  await choose(dark, 'Bad mac');
  await picture(dark, 'dark');
  const narrow = await openPage(browser, server, { viewport: { width: 820, height: 1100 } });
  await choose(narrow, 'Bad payload hash');
  await picture(narrow, 'narrow');
  const phone = await openPage(browser, server, { viewport: { width: 400, height: 1300 } });
  await picture(phone, 'phone');
} finally {
  await browser.close();
  await server.end();
}

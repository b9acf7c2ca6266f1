// What the browser's tests stand on: the development server, the kestrova command as its client, requests signed by hand, and chromium.
//
// The browser is Debian's chromium, or the one that CHROMIUM names.
import fs from 'node:fs';
import { chromium } from 'playwright-core';
import { LIMIT } from '../support/dev-server.mjs';

export { APP, LIMIT, Server, batch, now } from '../support/dev-server.mjs';

/** One browser for all tests of a file. As root chromium runs without its sandbox or not at all. */
export async function openBrowser() {
  const executablePath = process.env.CHROMIUM ?? '/usr/bin/chromium';
  if (!fs.existsSync(executablePath)) throw new Error(`there is no browser at ${executablePath}: install chromium`);
  return chromium.launch({ executablePath, args: process.getuid() === 0 ? ['--no-sandbox'] : [] });
}

/** A page of the server in a context of its own, once it is live. What goes wrong in it is collected. */
export async function openPage(browser, server, options = {}) {
  const context = await browser.newContext({ ignoreHTTPSErrors: true, viewport: { width: 1400, height: 900 }, ...options });
  context.setDefaultTimeout(LIMIT);
  const page = await context.newPage();
  page.faults = [];
  page.asked = [];
  page.on('pageerror', (error) => page.faults.push(String(error)));
  page.on('dialog', (dialog) => {
    page.faults.push(`a dialog: ${dialog.message()}`);
    dialog.dismiss();
  });
  page.on('request', (request) => page.asked.push(request.url()));
  await page.goto(`${server.url}/`);
  await page.waitForSelector('#connection[data-state="live"]');
  return page;
}

/** A row of the list by what it says. */
export const row = (page, text) => page.locator('.row', { hasText: text });

/** An animated GIF of four coloured frames, with codes that need no compression. */
export function animatedGif(side = 64) {
  const bytes = [...Buffer.from('GIF89a'), side, 0, side, 0, 0x91, 0, 0, 0x2f, 0x6f, 0x8f, 0xf3, 0xc9, 0x69, 0x7f, 0xcf, 0x9f, 0xf2, 0x9a, 0x92,
    0x21, 0xff, 11, ...Buffer.from('NETSCAPE2.0'), 3, 1, 0, 0, 0];
  for (let frame = 0; frame < 4; frame += 1) {
    bytes.push(0x21, 0xf9, 4, 0, 20, 0, 0, 0, 0x2c, 0, 0, 0, 0, side, 0, side, 0, 0, 2, ...pixels(side, frame), 0);
  }
  return Buffer.from([...bytes, 0x3b]);
}

/** The pixels of a frame in codes of three bits; a clear code after every second one keeps them so short. */
function pixels(side, frame) {
  const codes = [];
  for (let at = 0; at < side * side; at += 1) {
    if (at % 2 === 0) codes.push(4);
    codes.push((frame + (Math.floor(at / side / (side / 4)) + Math.floor((at % side) / (side / 4)))) % 4);
  }
  codes.push(5);
  const bytes = [];
  codes.forEach((code, index) => {
    for (let bit = 0; bit < 3; bit += 1) {
      const place = index * 3 + bit;
      bytes[place >> 3] = (bytes[place >> 3] ?? 0) | (((code >> bit) & 1) << (place & 7));
    }
  });
  const blocks = [];
  for (let at = 0; at < bytes.length; at += 255) blocks.push(Math.min(255, bytes.length - at), ...bytes.slice(at, at + 255));
  return blocks;
}

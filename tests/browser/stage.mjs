// What the browser's tests stand on: the development server, the kestrova command as its client, requests signed by hand, and chromium.
//
// The programs are those of KESTROVA_BIN_DIR. The browser is Debian's chromium, or the one that CHROMIUM names.
import { execFile, spawn } from 'node:child_process';
import crypto from 'node:crypto';
import fs from 'node:fs';
import https from 'node:https';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import hawk from 'hawk';
import { chromium } from 'playwright-core';

export const APP = 'com.example.app';
const SECRET = 's3cr3t-API-key-0123456789abcdef';
/** How long anything may take before a test has failed, in milliseconds. */
export const LIMIT = 30000;

const programs = process.env.KESTROVA_BIN_DIR ?? fileURLToPath(new URL('../../build/dev/bin', import.meta.url));
const program = (name) => path.join(programs, name);

/** The time in whole seconds, as it is signed. */
export const now = () => Math.floor(Date.now() / 1000);

/** One browser for all tests of a file. As root chromium runs without its sandbox or not at all. */
export async function openBrowser() {
  const executablePath = process.env.CHROMIUM ?? '/usr/bin/chromium';
  if (!fs.existsSync(executablePath)) throw new Error(`there is no browser at ${executablePath}: install chromium`);
  return chromium.launch({ executablePath, args: process.getuid() === 0 ? ['--no-sandbox'] : [] });
}

/** A server with a folder of its own, ready for requests. */
export class Server {
  static async start(more = []) {
    const server = new Server();
    server.folder = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrova-browser-'));
    fs.writeFileSync(server.file('secret'), SECRET, { mode: 0o600 });
    await server.run('0', more);
    return server;
  }

  file(name) {
    return path.join(this.folder, name);
  }

  async run(port, more) {
    const options = ['--port', String(port), '--state', this.file('state'), '--app', APP, '--secret-file', this.file('secret'), ...more];
    this.process = spawn(program('kestrova-devserver'), options, { stdio: ['ignore', 'pipe', 'inherit'] });
    this.ended = new Promise((resolve) => this.process.once('exit', (code, signal) => resolve(code ?? signal)));
    const ready = await new Promise((resolve, reject) => {
      let text = '';
      this.process.stdout.on('data', (piece) => {
        text += piece;
        const line = /^ready (\{.*\})$/m.exec(text);
        if (line) resolve(JSON.parse(line[1]));
      });
      this.ended.then((status) => reject(new Error(`the server ended with ${status}`)));
    });
    this.port = ready.port;
    this.url = ready.url;
    this.authority = ready.caFile;
  }

  /** Ends it; another may be started on its port with `run`. */
  async stop() {
    this.process.kill('SIGTERM');
    return this.ended;
  }

  async end() {
    const status = await this.stop();
    await this.endTransfers();
    fs.rmSync(this.folder, { recursive: true, force: true });
    return status;
  }

  /** The transfer service that an upload has started ends before its folder goes. */
  async endTransfers() {
    if (!fs.existsSync(this.file('transfers'))) return;
    const processOf = async () => Number(/process (\d+)/.exec((await this.command(['kestrova-transferd', '--status'])).output)?.[1] ?? 0);
    const service = await processOf();
    if (service) process.kill(service, 'SIGTERM');
    const limit = Date.now() + LIMIT;
    while (await processOf()) if (Date.now() > limit) throw new Error('the transfer service does not end');
  }

  /** Runs the kestrova command to its end: its status, what it wrote, and its report. */
  async client(args, { home = 'home', secret = SECRET } = {}) {
    return this.command(['kestrova', '--json', ...args], {
      KESTROVA_API_HOST: `localhost:${this.port}`, KESTROVA_BUNDLE_ID: APP, KESTROVA_HOME: this.file(home), KESTROVA_SECRET: secret,
    });
  }

  command([name, ...args], more = {}) {
    const env = { ...process.env, SSL_CERT_FILE: this.authority, KESTROVA_TRANSFER_DIR: this.file('transfers'), ...more };
    return new Promise((resolve) => {
      execFile(program(name), args, { env, timeout: LIMIT }, (error, output, errors) => {
        resolve({ status: error ? error.code : 0, report: output.startsWith('{') ? JSON.parse(output) : undefined, output, errors });
      });
    });
  }

  /** Writes events to a file, one a line, as the command takes them. */
  events(list) {
    const name = this.file(`events-${crypto.randomUUID()}.jsonl`);
    fs.writeFileSync(name, list.map((event) => JSON.stringify(event)).join('\n'));
    return name;
  }

  /** The Authorization of a POST by the scheme's reference library. */
  authorization(target, body, { device = 'device-1', time = now(), nonce = undefined, secret = SECRET, type = 'application/json' } = {}) {
    const payload = target.startsWith('/gifs') ? {} : { payload: body, contentType: type };
    const credentials = { id: APP, key: secret, algorithm: 'sha256' };
    return hawk.client.header(`${this.url}${target}`, 'POST', { credentials, ext: device, timestamp: time, nonce, ...payload }).header;
  }

  /** A signed POST; what is given last spoils it. */
  async post(target, body, { ahead = 0, spoil = (sent) => sent, type = 'application/json', ...more } = {}) {
    const header = this.authorization(target, body, { time: now() + ahead, type, ...more });
    return this.send(target, spoil(Buffer.from(body)), { Authorization: header, 'Content-Type': type });
  }

  send(target, body, headers, method = 'POST') {
    this.agent ??= new https.Agent({ keepAlive: true, maxSockets: 2, ca: fs.readFileSync(this.authority) });
    return new Promise((resolve, reject) => {
      const request = https.request(`${this.url}${target}`, { method, agent: this.agent, headers: { 'Content-Length': body.length, ...headers } }, (answer) => {
        let text = '';
        answer.setEncoding('utf8');
        answer.on('data', (piece) => { text += piece; });
        answer.on('end', () => resolve({ status: answer.statusCode, text }));
      });
      request.on('error', reject);
      request.end(body);
    });
  }

  /** Orders misbehaviour as a program does. */
  misbehave(settings) {
    return this.send('/dev/behaviour', Buffer.from(JSON.stringify(settings)), {});
  }
}

/** The body of a batch. */
export function batch(events) {
  return JSON.stringify({
    data: events.map(({ name = 'opened', data = {}, session = 's1', time = new Date().toISOString() }) => ({
      event: name, eventData: { ...data, sessionId: session }, localTime: time,
    })),
  });
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

// The development server beside a test in Node, the programs that speak to it, and requests signed by hand.
//
// The programs are those of KESTROVA_BIN_DIR. Requests are signed by the scheme's reference library, not by ours.
import { execFile, spawn } from 'node:child_process';
import crypto from 'node:crypto';
import fs from 'node:fs';
import https from 'node:https';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';
import hawk from 'hawk';

export const APP = 'com.example.app';
export const SECRET = 's3cr3t-API-key-0123456789abcdef';
/** The time in whole seconds, as it is signed. */
export const now = () => Math.floor(Date.now() / 1000);

/** How long anything may take before a test has failed, in milliseconds. */
export const LIMIT = 30000;

const programs = process.env.KESTROVA_BIN_DIR ?? fileURLToPath(new URL('../../build/dev/bin', import.meta.url));
const program = (name) => path.join(programs, name);

/** A server with a folder of its own, ready for requests. */
export class Server {
  static async start(more = []) {
    const server = new Server();
    server.folder = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrova-served-'));
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

  /** A POST signed by the scheme's reference library; what is given last spoils it. */
  async post(target, body, { spoil = (sent) => sent, type = 'application/json', ...signing } = {}) {
    const header = this.authorization(target, body, { type, ...signing });
    return this.send(target, spoil(Buffer.from(body)), { Authorization: header, 'Content-Type': type });
  }

  /** The Authorization field of a POST by the scheme's reference library; that of an upload covers no body. */
  authorization(target, body, { device = 'device-1', ahead = 0, time = now() + ahead, nonce = undefined, secret = SECRET, type = 'application/json' } = {}) {
    const payload = target.startsWith('/gifs') ? {} : { payload: body, contentType: type };
    const credentials = { id: APP, key: secret, algorithm: 'sha256' };
    return hawk.client.header(`${this.url}${target}`, 'POST', { credentials, ext: device, timestamp: time, nonce, ...payload }).header;
  }

  /** An address that is signed itself, as the client opens it in a browser. */
  signedLink(target, { lifetime = 60 } = {}) {
    const credentials = { id: APP, key: SECRET, algorithm: 'sha256' };
    return `${target}&bewit=${hawk.uri.getBewit(`${this.url}${target}`, { credentials, ttlSec: lifetime })}`;
  }

  send(target, body, headers, method = 'POST') {
    this.agent ??= new https.Agent({ keepAlive: true, maxSockets: 2, ca: fs.readFileSync(this.authority) });
    return new Promise((resolve, reject) => {
      const request = https.request(`${this.url}${target}`, { method, agent: this.agent, headers: { 'Content-Length': body.length, ...headers } }, (answer) => {
        let text = '';
        answer.setEncoding('utf8');
        answer.on('data', (piece) => { text += piece; });
        answer.on('end', () => resolve({ status: answer.statusCode, headers: answer.headers, text }));
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

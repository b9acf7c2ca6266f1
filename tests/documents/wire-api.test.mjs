// The document of the wire API, docs/openapi.yaml, against the development server that runs and against the client.
//
// Each answer that the document promises is made to come, and compared with it; what a schema lets in and what the server takes are the
// same, body by body; every route of the server is there, and every request of the real client.
import assert from 'node:assert/strict';
import fs from 'node:fs';
import https from 'node:https';
import os from 'node:os';
import { after, before, describe, test } from 'node:test';
import { fileURLToPath } from 'node:url';
import { Validator } from '@seriousme/openapi-schema-validator';
import Ajv from 'ajv/dist/2020.js';
import { parse } from 'yaml';
import { APP, LIMIT, SECRET, Server, batch } from '../support/dev-server.mjs';

const root = fileURLToPath(new URL('../..', import.meta.url));
const text = fs.readFileSync(`${root}docs/openapi.yaml`, 'utf8');
const VENDOR_TYPE = 'application/vnd.kestrova.v1+json';
const METHODS = ['get', 'post', 'delete', 'put', 'patch'];

/** The document, and what it says of a request and of its answer. */
class Document {
  constructor(source) {
    this.content = parse(source);
    this.ajv = new Ajv({ strict: false, validateFormats: false, allErrors: true });
    this.ajv.addSchema(this.content, 'api');
  }

  /** Names of the form `POST /events`. */
  operations() {
    return Object.entries(this.content.paths).flatMap(([path, item]) => METHODS.filter((method) => item[method])
      .map((method) => `${method.toUpperCase()} ${path}`));
  }

  operation(name) {
    const [method, path] = name.split(' ');
    return this.content.paths[path]?.[method.toLowerCase()];
  }

  /** All answers that it promises, as `POST /events 200`. */
  answers() {
    return this.operations().flatMap((name) => Object.keys(this.operation(name).responses).map((status) => `${name} ${status}`));
  }

  /** What a reference leads to, with the place where that is. */
  resolved(place) {
    let node = this.content;
    for (const part of place) node = node[part];
    return node.$ref ? this.resolved(node.$ref.split('/').slice(1)) : { node, place };
  }

  /** What is wrong with a value by the schema at a place. */
  faults(place, value) {
    const pointer = place.map((part) => encodeURIComponent(part.replaceAll('~', '~0').replaceAll('/', '~1'))).join('/');
    this.compiled ??= new Map();
    if (!this.compiled.has(pointer)) this.compiled.set(pointer, this.ajv.compile({ $ref: `api#/${pointer}` }));
    const validate = this.compiled.get(pointer);
    return validate(value) ? [] : validate.errors.map((error) => `${error.instancePath} ${error.message}`);
  }

  placeOf(name) {
    const [method, path] = name.split(' ');
    return ['paths', path, method.toLowerCase()];
  }

  /** What is wrong with the body of a request. */
  requestFaults(name, body, type = VENDOR_TYPE) {
    const { place } = this.resolved([...this.placeOf(name), 'requestBody']);
    return this.faults([...place, 'content', type, 'schema'], body);
  }

  /** What is wrong with an answer. */
  answerFaults(name, { status, headers, text: body }) {
    if (!this.operation(name)?.responses[status]) return [`${name} has no answer ${status}`];
    const { node, place } = this.resolved([...this.placeOf(name), 'responses', String(status)]);
    const type = (headers['content-type'] ?? '').split(';')[0];
    const content = node.content[type];
    if (!content) return [`${name} ${status} has no content of the type ${type}`];
    const found = Object.keys(node.headers ?? {}).flatMap((field) => {
      const header = this.resolved([...place, 'headers', field]);
      return this.faults([...header.place, 'schema'], headers[field.toLowerCase()]).map((fault) => `${field}${fault}`);
    });
    if (!content.schema) return found;
    return [...found, ...this.faults([...place, 'content', type, 'schema'], type === 'application/json' ? JSON.parse(body) : body)];
  }

  /** What is wrong with a request's address by the parameters that stand there. */
  addressFaults(name, target) {
    const given = [...new URL(target, 'https://localhost').searchParams.keys()];
    const operation = this.operation(name);
    const inQuery = (operation.parameters ?? []).filter((parameter) => parameter.in === 'query');
    const signed = operation.security.flatMap((scheme) => Object.keys(scheme)).map((scheme) => this.content.components.securitySchemes[scheme])
      .filter((scheme) => scheme.in === 'query').map((scheme) => scheme.name);
    const known = [...inQuery.map((parameter) => parameter.name), ...signed];
    const needed = [...inQuery.filter((parameter) => parameter.required).map((parameter) => parameter.name), ...signed];
    return [...given.filter((one) => !known.includes(one)).map((one) => `${name} has no parameter ${one}`),
      ...needed.filter((one) => !given.includes(one)).map((one) => `${name} is asked without ${one}`)];
  }
}

/** The routes that the server's source has, as the document writes them but for the names of what stands in braces. */
function routesOf(source) {
  const named = Object.fromEntries([...source.matchAll(/std::string_view (k\w+) = "([^"]+)";/g)].map(([, name, value]) => [name, `${value}{}`]));
  const routes = [...source.matchAll(/Entry\{(?:"([^"]+)"|(k\w+)), "([A-Z]+)", Route::/g)]
    .map(([, path, name, method]) => `${method} ${path ?? named[name]}`);
  assert.ok(routes.length > 10, 'the routes cannot be read from the source');
  return routes;
}

const withoutNames = (operation) => operation.replace(/\{\w+\}/g, '{}');

/** A body, and bodies that differ from it in one member: without it, with another value, or with one more. */
function* variants(body) {
  yield body;
  const copies = (change) => { const copy = structuredClone(body); change(copy); return copy; };
  function* below(place) {
    const at = (copy) => place.reduce((node, part) => node[part], copy);
    const node = at(body);
    if (!Array.isArray(node)) yield copies((copy) => { at(copy).unknown = 1; });
    for (const key of Object.keys(node)) {
      if (!Array.isArray(node)) yield copies((copy) => { delete at(copy)[key]; });
      for (const value of [null, true, 1, -1, 'text', [], {}]) yield copies((copy) => { at(copy)[key] = value; });
      if (node[key] && typeof node[key] === 'object') yield* below([...place, key]);
    }
  }
  yield* below([]);
}

const api = new Document(text);
let server;
const seen = new Set();

/** Holds an answer to what the document says of it. */
function hold(name, answer) {
  assert.deepEqual(api.answerFaults(name, answer), [], `${name}: ${answer.status} ${answer.text}`);
  seen.add(`${name} ${answer.status}`);
  return answer;
}

const get = async (name, target, headers = {}) => hold(name, await server.send(target, Buffer.alloc(0), headers, name.split(' ')[0]));
const signed = async (name, target, body, more = {}) => hold(name, await server.post(target, typeof body === 'string' ? body : JSON.stringify(body), { type: VENDOR_TYPE, ...more }));
const plain = async (name, target, body, headers = {}) => hold(name, await server.send(target, Buffer.from(JSON.stringify(body)), { 'Content-Type': 'application/json', ...headers }));

/** A header that promises more than the server takes; the body does not come. */
async function tooLong(name, target, length) {
  return hold(name, await server.send(target, Buffer.alloc(0), {
    Authorization: server.authorization(target, '', { type: VENDOR_TYPE }), 'Content-Type': VENDOR_TYPE, 'Content-Length': length, Connection: 'close',
  }));
}

before(async () => { server = await Server.start(); });
after(async () => { await server.end(); });

describe('the document', () => {
  test('is one of OpenAPI 3.1', async () => {
    const validator = new Validator();
    const { valid, errors } = await validator.validate(parse(text));
    assert.deepEqual({ valid, errors, version: validator.version }, { valid: true, errors: undefined, version: '3.1' });
  });

  test('has the routes of the server and no other', () => {
    const routes = routesOf(fs.readFileSync(`${root}src/devserver/Api.cpp`, 'utf8'));
    assert.deepEqual(api.operations().map(withoutNames).sort(), routes.sort());
  });

  test('has the methods that the server allows', async () => {
    for (const path of Object.keys(api.content.paths)) {
      const answer = await server.send(path, Buffer.alloc(0), {}, 'PUT');
      const documented = METHODS.filter((method) => api.content.paths[path][method]).map((method) => method.toUpperCase());
      assert.equal(answer.status, 405);
      assert.deepEqual(answer.headers.allow.split(', ').sort(), documented.sort(), path);
    }
  });

  test('has examples that are right by their schemas', () => {
    let examples = 0;
    const look = (node, place) => {
      if (!node || typeof node !== 'object') return;
      if (node.example !== undefined && node.schema) {
        assert.deepEqual(api.faults([...place, 'schema'], node.example), [], place.join(' '));
        examples += 1;
      }
      for (const [key, child] of Object.entries(node)) look(child, [...place, key]);
    };
    look(api.content, []);
    assert.ok(examples >= 8, `${examples} examples`);
  });

  test('and the server take the same bodies', async () => {
    let bodies = 0;
    for (const name of ['POST /events', 'POST /shares', 'POST /patch-previous-session-started']) {
      for (const body of variants(api.operation(name).requestBody.content[VENDOR_TYPE].example)) {
        const answer = await signed(name, name.split(' ')[1], body);
        assert.equal(answer.status < 300, api.requestFaults(name, body).length === 0, `${name} ${JSON.stringify(body)}: ${answer.text}`);
        bodies += 1;
      }
    }
    assert.ok(bodies > 100, `${bodies} bodies`);
  });

  test('and the server take the same orders to misbehave', async () => {
    const name = 'POST /dev/behaviour';
    const alone = { Connection: 'close' }; // one of the orders is to close connections
    const settings = {
      'clock-offset': 5, delay: 1, drop: 1, 'close-every': 1, 'read-rate': 1, directives: { features: 1 }, status: { code: 500, next: 2 },
      answer: { status: 307, headers: { Location: '/shares' }, body: 'x', next: 1 }, stale: { time: 5, tsm: 'wrong', next: 1 },
    };
    for (const body of [...variants(settings), ...[199, 200, 999, 1000].map((status) => ({ status }))]) {
      const answer = await plain(name, '/dev/behaviour', body, alone);
      const faults = api.requestFaults(name, body, 'application/json');
      assert.equal(answer.status < 300, faults.length === 0, `${JSON.stringify(body)}: ${answer.text} ${faults}`);
      await get('DELETE /dev/behaviour', '/dev/behaviour', alone);
    }
  });
});

describe('the server answers as the document says', () => {
  test('to events', async () => {
    await signed('POST /events', '/events', batch([{ name: 'session-started' }]));
    await server.misbehave({ directives: { referralCode: 'abcdefgh', features: 3, reasons: { 0: 'maintenance' } } });
    await signed('POST /events', '/events', batch([{}]));
    await get('DELETE /dev/behaviour', '/dev/behaviour');
    await signed('POST /events', '/events', '{"data"');
    assert.match((await signed('POST /events', '/events', batch([{}]), { ahead: -3600 })).headers['www-authenticate'], /^Hawk ts=/);
    assert.match((await signed('POST /events', '/events', batch([{}]), { spoil: () => Buffer.from('{}') })).headers['www-authenticate'], /^Hawk error=/);
    assert.equal(hold('POST /events', await server.send('/events', Buffer.from('{}'), {})).headers['www-authenticate'], 'Hawk');
    await tooLong('POST /events', '/events', 65 * 1024 * 1024);
  });

  test('to shares', async () => {
    const submitted = await signed('POST /shares', '/shares', { data: { data: { gif: 'g1' } } });
    const code = JSON.parse(submitted.text).data.id;
    await signed('POST /shares', '/shares', { data: {} }, { spoil: () => Buffer.from('{}') });
    await tooLong('POST /shares', '/shares', 257 * 1024);
    const found = await get('GET /shares', `/shares?ids=${code},unknown`);
    assert.deepEqual(JSON.parse(found.text).data.map((share) => share.state), [0]);
    await get('GET /shares', '/shares');
    await get('GET /s/{code}', `/s/${code}`);
    await get('GET /s/{code}', '/s/unknown');
    await get('GET /dev/shares', '/dev/shares');
    await plain('POST /dev/shares', '/dev/shares', { [code]: 'opened' });
    await plain('POST /dev/shares', '/dev/shares', { [code]: 'sent' });
  });

  test('to patches', async () => {
    const name = 'POST /patch-previous-session-started';
    const target = '/patch-previous-session-started';
    await signed(name, target, { data: { eventData: { link: 'x' } } });
    await signed(name, target, { data: { eventData: {} } }, { ahead: 3600 });
    await tooLong(name, target, 65 * 1024 * 1024);
    const sessions = JSON.parse((await get('GET /dev/sessions', '/dev/sessions')).text).sessions;
    assert.deepEqual(sessions.map(({ app, event }) => [app, event.eventData.link]), [[APP, 'x']]);
  });

  test('to the links of cookie matches', async () => {
    const name = 'GET /cookie-match';
    const link = `/cookie-match?appRDNS=${APP}&deviceId=device-1`;
    await get(name, server.signedLink(link));
    await get(name, server.signedLink('/cookie-match?appRDNS=com.example.other&deviceId=device-1'));
    await get(name, link);
    await get(name, server.signedLink(link, { lifetime: -5 }));
  });

  test('to uploads', async () => {
    const name = 'POST /gifs';
    await signed(name, '/gifs?shareId=s1', 'GIF89a');
    await signed(name, '/gifs', 'GIF89a');
    await signed(name, '/gifs?shareId=s1', 'GIF89a', { ahead: -9 * 86400 });
    await tooLong(name, '/gifs?shareId=s1', 1024 * 1024 * 1024 + 1);
    const { requests } = JSON.parse((await get('GET /dev/records', '/dev/records')).text);
    const { file } = requests.findLast((entry) => entry.path === '/gifs' && entry.taken);
    assert.equal((await get('GET /dev/gif', `/dev/gif?file=${file}`)).text, 'GIF89a');
    await get('GET /dev/gif', '/dev/gif?file=unknown.gif');
  });

  test('to an upload for which there is no room', async () => {
    const folder = fs.mkdtempSync(`${os.tmpdir()}/kestrova-no-room-`);
    const full = await Server.start(['--gifs', folder]);
    fs.rmSync(folder, { recursive: true });
    hold('POST /gifs', await full.post('/gifs?shareId=s1', 'GIF89a'));
    await full.end();
    assert.ok(seen.has('POST /gifs 507'));
  });

  test('on its own pages', async () => {
    await get('GET /', '/');
    await get('GET /', '/', { Accept: 'text/html' });
    for (const file of ['main.js', 'style.css', 'icon.svg', 'index.html', 'unknown.js']) await get('GET /dev/page/{name}', `/dev/page/${file}`);
    const { items, next } = JSON.parse((await get('GET /dev/feed', '/dev/feed')).text);
    assert.ok(items.length > 10);
    assert.equal(JSON.parse((await get('GET /dev/feed', `/dev/feed?before=${next}&limit=1`)).text).items.length, 1);
    await get('GET /dev/feed', '/dev/feed?limit=10001');
    await get('GET /dev/feed/live', '/dev/feed/live?after=x');
    hold('GET /dev/feed/live', await beginning('/dev/feed/live'));
    await get('GET /dev/behaviour', '/dev/behaviour');
  });

  test('to who is not from here', async () => {
    for (const name of api.operations().filter((one) => api.operation(one).responses['403'])) {
      const [method, target] = name.split(' ');
      hold(name, await server.send(target, Buffer.alloc(0), { Origin: 'https://elsewhere.example' }, method));
    }
  });

  test('and every answer that is documented has come', () => {
    assert.deepEqual(api.answers().filter((answer) => !seen.has(answer)), []);
  });
});

/** What comes first of an answer without end. */
function beginning(target) {
  return new Promise((resolve, reject) => {
    const request = https.get(`${server.url}${target}`, { ca: fs.readFileSync(server.authority), agent: false }, (answer) => {
      answer.once('data', (piece) => {
        resolve({ status: answer.statusCode, headers: answer.headers, text: String(piece) });
        request.destroy();
      });
    });
    request.setTimeout(LIMIT, () => request.destroy(new Error('nothing comes')));
    request.on('error', reject);
  });
}

describe('the client', () => {
  let client;
  before(async () => { client = await Server.start(); });
  after(async () => { await client.end(); });

  /** The command, with a browser that only fetches what it is to open. */
  async function run(...args) {
    const opener = client.file('xdg-open');
    fs.writeFileSync(opener, '#!/bin/sh\nexec curl -sS --cacert "$SSL_CERT_FILE" "$1" >&2\n', { mode: 0o700 });
    const done = await client.command(['kestrova', '--json', ...args], {
      KESTROVA_API_HOST: `localhost:${client.port}`, KESTROVA_BUNDLE_ID: APP, KESTROVA_HOME: client.file('home'), KESTROVA_SECRET: SECRET,
      PATH: `${client.folder}:${process.env.PATH}`,
    });
    assert.equal(done.status, 0, done.output + done.errors);
    return done.report;
  }

  test('asks for what the document has, and for all of it', async () => {
    await run('event', 'session-started', '--data', '{"screen": "home"}');
    const { referralCode } = await run('share', 'submit', '--data', '{"gif": "g1"}', '--url', 'https://share.example.com/g1');
    await run('share', 'refresh', referralCode);
    await run('patch', '{"link": "x"}');
    await run('cookie-match');
    fs.writeFileSync(client.file('cat.gif'), 'GIF89a');
    await run('upload', client.file('cat.gif'), '--share-id', referralCode.slice(8), '--wait');

    const { requests } = JSON.parse((await client.send('/dev/records', Buffer.alloc(0), {}, 'GET')).text);
    for (const entry of requests) {
      const name = `${entry.method} ${entry.path}`;
      assert.deepEqual(api.addressFaults(name, entry.target), []);
      const data = entry.records ?? entry.data;
      if (data !== undefined) assert.deepEqual(api.requestFaults(name, { data }), [], name);
      assert.equal(entry.taken, true, name);
    }
    // The link of a share is for the people who are shown it.
    const expected = api.operations().filter((name) => api.operation(name).tags.includes('API') && name !== 'GET /s/{code}');
    assert.deepEqual([...new Set(requests.map((entry) => `${entry.method} ${entry.path}`))].sort(), expected.sort());
  });
});

describe('what is wrong is found:', () => {
  const answer = (status, body, headers = {}) => ({ status, headers: { 'content-type': 'application/json', ...headers }, text: JSON.stringify(body) });

  test('a document that is none', async () => {
    const broken = parse(text);
    delete broken.paths['/events'].post.responses;
    broken.paths['/events'].post.requestBody = 'a batch';
    assert.equal((await new Validator().validate(broken)).valid, false);
  });

  test('a route that is not there', () => {
    const source = fs.readFileSync(`${root}src/devserver/Api.cpp`, 'utf8');
    const more = source.replace('Entry{"/gifs", "POST", Route::kGif}', 'Entry{"/gifs", "POST", Route::kGif}, Entry{"/new", "GET", Route::kNone}');
    assert.deepEqual(routesOf(more).filter((route) => !api.operations().map(withoutNames).includes(route)), ['GET /new']);
  });

  test('an answer that is not as documented', () => {
    assert.deepEqual(api.answerFaults('POST /shares', answer(201, { data: { id: 'short' } })), ['/data/id must match pattern "^[A-Za-z0-9]{9,}$"']);
    assert.deepEqual(api.answerFaults('POST /shares', answer(200, {})), ['POST /shares has no answer 200']);
    assert.deepEqual(api.answerFaults('POST /events', answer(401, { error: 'x' })), ['WWW-Authenticate must be string']);
    assert.deepEqual(api.answerFaults('POST /events', answer(200, {}, { 'content-type': 'text/css' })), ['POST /events 200 has no content of the type text/css']);
    assert.deepEqual(api.answerFaults('POST /events', answer(400, { error: '' })), ['/error must NOT have fewer than 1 characters']);
  });

  test('a request that is not as documented', () => {
    assert.deepEqual(api.requestFaults('POST /events', { data: [{ event: 'x', eventData: {} }] }), ["/data/0 must have required property 'localTime'"]);
    assert.deepEqual(api.addressFaults('POST /gifs', '/gifs?share=1'), ['POST /gifs has no parameter share', 'POST /gifs is asked without shareId']);
    assert.deepEqual(api.addressFaults('GET /cookie-match', '/cookie-match?appRDNS=a&deviceId=b'), ['GET /cookie-match is asked without bewit']);
  });
});

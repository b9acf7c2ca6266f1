// An API server that trusts no code of this project: HTTPS, with every signature checked by the scheme's reference library.
//
//   node hawk-server.mjs --cert FILE --key FILE --credentials FILE [--port N] [--host ADDRESS] [--offset SECONDS]
//
// --credentials names a JSON file {"<id>": "<key>", …}; --offset sets the server's clock ahead of this machine's (or behind it).
// The first line on standard output is {"port": N}; after it comes one line for each request:
//   {"method", "path", "authenticated", "authorization", "error", "status", "records"}
// authorization says whether there was an Authorization field at all. GET /cookie-match takes signed links only.
// error is the reference library's own text or null; records counts the elements of the body's "data" when that is an array, else null.
// SIGTERM and SIGINT end the server.
import { readFileSync } from 'node:fs';
import { createServer } from 'node:https';
import { parseArgs } from 'node:util';
import Hawk from 'hawk';

const mediaType = 'application/vnd.kestrova.v1+json';
// Paths that take signed requests, and whether the signature covers the body.
const signedPaths = new Map([
  ['/events', { coversBody: true }],
  ['/shares', { coversBody: true }],
  ['/patch-previous-session-started', { coversBody: true }],
  ['/gifs', { coversBody: false }],
]);

// Every option takes a value, which may begin with a dash: the pairs are joined before they are read.
const pairs = process.argv.slice(2).join('\n').replace(/^(--[a-z]+)\n/gm, '$1=').split('\n').filter(Boolean);
const { values: options } = parseArgs({
  args: pairs,
  options: {
    cert: { type: 'string' },
    key: { type: 'string' },
    credentials: { type: 'string' },
    port: { type: 'string', default: '0' },
    host: { type: 'string', default: '127.0.0.1' },
    offset: { type: 'string', default: '0' },
  },
});
for (const name of ['cert', 'key', 'credentials'])
  if (!options[name]) {
    console.error(`hawk-server: --${name} is missing`);
    process.exit(2);
  }

const keys = new Map(Object.entries(JSON.parse(readFileSync(options.credentials, 'utf8'))));
const seenNonces = new Set();

const hawkOptions = {
  localtimeOffsetMsec: Number(options.offset) * 1000,
  nonceFunc: async (key, nonce, ts) => {
    const use = JSON.stringify([key, nonce, ts]);
    if (seenNonces.has(use)) throw new Error('the nonce was used before');
    seenNonces.add(use);
  },
};
const credentialsFor = async (id) => (keys.has(id) ? { key: keys.get(id), algorithm: 'sha256' } : null);

async function bodyOf(request) {
  const parts = [];
  for await (const part of request) parts.push(part);
  return Buffer.concat(parts);
}

function recordsIn(body) {
  try {
    const { data } = JSON.parse(body.toString('utf8'));
    return Array.isArray(data) ? data.length : null;
  } catch {
    return null;
  }
}

// The library's refusal of the request, or null when it is genuine.
async function refusalOf(request, body, { coversBody }) {
  try {
    await Hawk.server.authenticate(request, credentialsFor, coversBody ? { ...hawkOptions, payload: body.toString('utf8') } : { ...hawkOptions });
    return null;
  } catch (refusal) {
    return refusal;
  }
}

// The library's refusal of a signed link, or null when it is genuine.
async function refusalOfLink(request) {
  try {
    await Hawk.server.authenticateBewit(request, credentialsFor, { ...hawkOptions });
    return null;
  } catch (refusal) {
    return refusal;
  }
}

async function answer(request, response) {
  const body = await bodyOf(request);
  const path = request.url.split('?')[0];
  const line = { method: request.method, path: request.url, authenticated: false, authorization: 'authorization' in request.headers, error: null, status: 200, records: recordsIn(body) };
  const fields = { 'content-type': mediaType };

  const isLink = path === '/cookie-match' && request.method === 'GET';
  if (!signedPaths.has(path) && !isLink) {
    line.status = 404;
  } else if (isLink || request.method === 'POST') {
    const refusal = isLink ? await refusalOfLink(request) : await refusalOf(request, body, signedPaths.get(path));
    line.authenticated = refusal === null;
    if (refusal) {
      line.error = refusal.message;
      line.status = refusal.output?.statusCode ?? 500;
      Object.assign(fields, refusal.output?.headers);
    }
  } else if (!(request.method === 'GET' && path === '/shares')) {
    line.status = 405;
  }

  console.log(JSON.stringify(line));
  response.writeHead(line.status, fields);
  response.end(path === '/shares' && line.status === 200 ? (request.method === 'GET' ? '{"data":[]}' : '{"data":{"id":"abcdefgh1"}}') : '{}');
}

const server = createServer({ cert: readFileSync(options.cert), key: readFileSync(options.key) }, (request, response) => {
  answer(request, response).catch((error) => {
    console.error(`hawk-server: ${error.stack}`);
    response.destroy();
  });
});
server.listen(Number(options.port), options.host, () => console.log(JSON.stringify({ port: server.address().port })));
for (const signal of ['SIGTERM', 'SIGINT'])
  process.on(signal, () => {
    server.close(() => process.exit(0));
    server.closeAllConnections();
  });

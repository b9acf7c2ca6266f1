// The scheme's reference library as an oracle: reads one JSON question a line from standard input, writes one JSON answer a line.
//
//   {"ask": "request", "method", "url", "host", "port", "header", "key", "contentType", "payload"?}
//       verifies a request as a server; answers {"error": null} or the refusal's text
//   {"ask": "challenge", "key", "id", "port", "offset"}
//       the refusal of a genuine request whose time is `offset` seconds off; answers {"header": "Hawk ts=…", "ts": seconds}
//   {"ask": "accepts", "key", "header"}
//       reads a challenge as a client; answers {"ts": text or null, "error": null or the refusal's text}
//   {"ask": "tsm", "key", "ts"}
//       answers {"tsm": base64}
import { createInterface } from 'node:readline';
import Hawk from 'hawk';

const algorithm = 'sha256';

async function verify({ method, url, host, port, header, key, contentType, payload }) {
  const request = { method, url, host, port, authorization: header, contentType };
  const options = { timestampSkewSec: Number.MAX_SAFE_INTEGER };
  if (payload !== undefined) options.payload = payload;
  try {
    await Hawk.server.authenticate(request, async () => ({ key, algorithm }), options);
    return { error: null };
  } catch (refusal) {
    return { error: refusal.message };
  }
}

async function challenge({ key, id, port, offset }) {
  const credentials = { id, key, algorithm };
  const timestamp = Math.floor(Date.now() / 1000) + offset;
  const { header } = Hawk.client.header(`https://localhost:${port}/events`, 'POST', { credentials, timestamp });
  const request = { method: 'POST', url: '/events', host: 'localhost', port, authorization: header };
  try {
    await Hawk.server.authenticate(request, async () => credentials);
    return { header: null, ts: null };
  } catch (refusal) {
    const text = refusal.output.headers['WWW-Authenticate'];
    return { header: text, ts: Number(/ts="(\d+)"/.exec(text)[1]) };
  }
}

function accepts({ key, header }) {
  try {
    const { headers } = Hawk.client.authenticate({ headers: { 'www-authenticate': header } }, { key, algorithm }, {});
    return { ts: headers['www-authenticate']?.ts ?? null, error: null };
  } catch (refusal) {
    return { ts: null, error: refusal.message };
  }
}

const tsm = ({ key, ts }) => ({ tsm: Hawk.crypto.calculateTsMac(ts, { key, algorithm }) });

const answers = { request: verify, challenge, accepts, tsm };
for await (const line of createInterface({ input: process.stdin })) {
  const question = JSON.parse(line);
  console.log(JSON.stringify(await answers[question.ask](question)));
}

// What items are called: kinds, summaries, badges, and the misbehaviour that is in force.
import { bytes, counted, signed } from './dom.js';

const KINDS = {
  event: 'event', batch: 'batch', share: 'share', lookup: 'lookup', link: 'link', match: 'match', upload: 'upload', patch: 'patch',
  clock: 'clock', behaviour: 'server', other: 'request',
};
export const kindOf = (item) => KINDS[item.kind] ?? item.kind;

/** The summary of an item in a line: what is told in bold, and what beside it. */
export function summaryOf(item) {
  switch (item.kind) {
    case 'event': {
      const { sessionId, ...data } = item.data !== null && typeof item.data === 'object' ? item.data : {};
      return [item.name || '(no name)', item.dataBeginning ?? (Object.keys(data).length ? JSON.stringify(data) : '')];
    }
    case 'batch':
      return [item.records === undefined ? 'Batch' : counted(item.records, 'event'), notesOf(item)];
    case 'share':
      return [item.id ? `Share ${item.id}` : 'Share', notesOf(item)];
    case 'lookup':
      return ['Shares looked up', notesOf(item)];
    case 'link':
      return [item.id ? `Link of ${item.id} followed` : 'Link followed', notesOf(item)];
    case 'match':
      return ['Cookie match', notesOf(item)];
    case 'upload':
      return [item.shareId ? `GIF for ${item.shareId}` : 'GIF', notesOf(item)];
    case 'patch':
      return ['Session start patched', notesOf(item)];
    case 'clock':
      return [`Clock corrected by ${signed(item.seconds)}`, `after the challenge ${item.challenge}`];
    case 'behaviour':
      return [behaviourText(item.behaviour) ? 'The server misbehaves' : 'The server behaves', behaviourText(item.behaviour)];
    default:
      return [`${item.method} ${item.path}`, notesOf(item)];
  }
}

function notesOf(item) {
  const notes = [];
  if (item.bytes) notes.push(bytes(item.bytes));
  if (item.attempt) notes.push(`attempt ${item.attempt}, after ${item.again}`);
  if (item.back) notes.push(`${item.back} written back before`);
  if (item.misbehaviour) notes.push('on purpose');
  return notes.join(' · ');
}

/** The badge of an item: its class and text. Nothing for what has no verdict. */
export function badgeOf(store, item) {
  const verdict = store.verdictOf(item);
  if (!verdict) return null;
  if (verdict === 'taken') return ['taken', 'taken'];
  const request = store.carrierOf(item);
  if (verdict === 'refused') return ['refused', request.verdict];
  return ['disturbed', request.status ? `answered ${request.status}` : 'no answer'];
}

const FOREVER = 1000000;
const requests = (next) => (next >= FOREVER ? 'until healed' : `for the next ${next === 1 ? 'request' : `${next} requests`}`);

/** What is in force, in words; empty when the server behaves. */
export function behaviourText(state) {
  const parts = [];
  if (state.drop > 0) parts.push(`away ${requests(state.drop)}`);
  if (state.status) parts.push(`answers ${state.status.code} ${requests(state.status.next)}`);
  if (state.answer) parts.push(`gives an answer of its own ${requests(state.answer.next)}`);
  if (state.stale) parts.push(`challenges ${requests(state.stale.next)}`);
  if (state['clock-offset']) parts.push(`clock ${signed(state['clock-offset'])}`);
  if (state.delay) parts.push(`answers after ${state.delay / 1000} s`);
  if (state['read-rate']) parts.push(`reads ${bytes(state['read-rate'])} a second`);
  if (state['close-every']) parts.push(`closes after every ${state['close-every']} requests`);
  if (state.directivesBeginning) parts.push(`directive of ${bytes(state.directivesBytes)}: ${state.directivesBeginning}…`);
  else if (Object.keys(state.directives).length) parts.push(`directive ${JSON.stringify(state.directives)}`);
  return parts.join(', ');
}

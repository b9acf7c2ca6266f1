// The panel that tells all about one item, and why its signature was right or not.
import { byId, bytes, counted, make, signed, timeOfDay } from './dom.js';
import { isRequest } from './store.js';
import { badgeOf, behaviourText, kindOf, summaryOf } from './words.js';

const LINES = {
  'hawk.1.header': ['what is signed', 'time', 'nonce', 'method', 'path and query', 'host', 'port', 'payload hash', 'ext (device)', 'app', 'dlg'],
  'hawk.1.bewit': ['what is signed', 'end', 'nonce', 'method', 'path and query', 'host', 'port', 'payload hash', 'ext'],
};
const STEPS = {
  request: 'Request', header: 'Header', link: 'Link', application: 'Application', signature: 'Signature', payload: 'Payload hash', nonce: 'Nonce', clock: 'Clock',
};
const COMPUTED = { payload: 'the server computed', clock: 'the server\'s time' };

export class Details {
  /** `onGo` is called with the number of an item to go to. */
  constructor(store, onGo) {
    this.store = store;
    this.onGo = onGo;
    this.panel = byId('details');
    this.show(undefined);
  }

  show(item) {
    this.item = item;
    this.panel.replaceChildren(...(item ? this.partsOf(item) : [make('p', { className: 'quiet' }, 'Choose a line to see all of it.')]));
    this.panel.scrollTop = 0;
  }

  /** After news of the item that is shown. */
  refresh() {
    const look = this.item ? this.lookOf(this.item) : '';
    if (look === this.look) return;
    const { scrollTop } = this.panel;
    const hadFocus = this.panel.contains(document.activeElement) && document.activeElement !== this.panel;
    if (hadFocus) return;
    this.show(this.item);
    this.panel.scrollTop = scrollTop;
  }

  lookOf(item) {
    const fate = this.store.fates.get(item.n);
    return `${item.n} ${fate?.attempts} ${fate?.taken} ${fate?.last}`;
  }

  partsOf(item) {
    this.look = this.lookOf(item);
    const badge = badgeOf(this.store, item);
    const [bold] = summaryOf(item);
    const title = make('div', { className: 'title' }, make('h2', {}, bold),
      badge ? make('span', { className: `badge ${badge[0]}` }, badge[1]) : null);
    const request = this.store.carrierOf(item);
    const parts = [make('p', { className: 'quiet' }, `${kindOf(item)} ${item.n}`), title, this.reason(request), this.facts(item), this.links(item)];
    if (item.file) parts.push(this.gif(item));
    parts.push(...this.data(item, 'data', item.kind === 'event' ? 'Data' : 'Body'), ...this.data(item, 'patched', 'The session start is now'));
    if (request?.checks?.length) parts.push(...this.checks(request, item));
    return parts.filter(Boolean);
  }

  facts(item) {
    const facts = item.kind === 'event' ? this.eventFacts(item) : this.requestFacts(item);
    const list = make('dl', { className: 'facts' });
    for (const [name, value] of facts) {
      if (value === undefined || value === null || value === '') continue;
      list.append(make('dt', {}, name), make('dd', {}, String(value)));
    }
    return list;
  }

  eventFacts(item) {
    const fate = this.store.fates.get(item.n);
    return [
      ['Happened', item.time], ['Arrived', timeOfDay(item.at)], ['Session', item.session], ['Device', item.device], ['Application', item.app],
      ['Sent', fate && counted(fate.attempts, 'time')],
      ['Note', item.repeats && `The same as event ${item.repeats}, which was taken before.`],
    ];
  }

  requestFacts(item) {
    const on = { drop: 'No answer was given, as ordered.', status: 'The status was ordered.', answer: 'The answer was ordered.',
      stale: 'The challenge was ordered.' };
    return [
      ['Time', timeOfDay(item.at)], ['Request', item.target && `${item.method} ${item.target}`],
      ['Answer', isRequest(item) ? item.status || 'none' : ''], ['Verdict', item.verdict], ['On purpose', on[item.misbehaviour]],
      ['Bytes', item.bytes !== undefined ? bytes(item.bytes) : ''], ['Events', item.records],
      ['Attempt', item.attempt && `${item.attempt}; the first was ${item.again}`],
      ['Written back', item.back && `${counted(item.back, 'event')} came before in batches that were not taken`],
      ['Correction', item.seconds !== undefined ? `${signed(item.seconds)}, after the challenge in ${item.challenge}` : ''],
      ['In force', item.kind === 'behaviour' ? behaviourText(item.behaviour) || 'nothing: the server behaves' : ''],
      ['Share', item.shareId ?? item.id], ['SHA-256', item.sha256], ['File', item.file],
      ['Device', item.device], ['Application', item.app], ['Connection', item.connection],
    ];
  }

  /** Ways to the items that belong to this one. */
  links(item) {
    const targets = [];
    const fate = this.store.fates.get(item.n);
    if (fate) targets.push([`Its batch ${fate.last}`, fate.last]);
    if (item.again) targets.push([`First attempt ${item.again}`, item.again]);
    if (item.repeats) targets.push([`Event ${item.repeats}`, item.repeats]);
    if (item.challenge) targets.push([`Challenge ${item.challenge}`, item.challenge]);
    for (const [first, last] of (item.events ?? []).slice(0, 5)) targets.push([first === last ? `Event ${first}` : `Events ${first} to ${last}`, last]);
    const there = targets.filter(([, number]) => this.store.find(number));
    if (!there.length) return null;
    const row = make('div', { className: 'links' });
    for (const [text, number] of there) {
      const button = make('button', { type: 'button' }, text);
      button.addEventListener('click', () => this.onGo(number));
      row.append(button);
    }
    return row;
  }

  gif(item) {
    const image = make('img', { className: 'gif', alt: `The GIF that was uploaded for the share ${item.shareId}` });
    image.addEventListener('error', () => image.replaceWith(make('p', { className: 'quiet' }, 'What was uploaded cannot be shown as a GIF, or has gone.')));
    image.src = `/dev/gif?file=${encodeURIComponent(item.file)}`;
    return image;
  }

  data(item, name, heading) {
    if (item[`${name}Beginning`] !== undefined) {
      return [make('h3', {}, `${heading} (the beginning; ${bytes(item[`${name}Bytes`])} in all, the journal has it whole)`),
        make('pre', {}, item[`${name}Beginning`])];
    }
    if (item[name] === undefined) return [];
    return [make('h3', {}, heading), make('pre', { tabIndex: 0, 'aria-label': heading }, JSON.stringify(item[name], null, 2))];
  }

  /** What went wrong stands first. */
  reason(request) {
    const wrong = request?.checks?.find((check) => check.state === 'wrong');
    return wrong ? make('ul', { className: 'checks reason', 'aria-label': 'Why it was refused' }, this.check(wrong)) : null;
  }

  /** All other steps. */
  checks(request, item) {
    const list = make('ol', { className: 'checks' });
    for (const check of request.checks) if (check.state !== 'wrong') list.append(this.check(check));
    const heading = item === request ? 'Signature' : `Signature of the batch ${request.n} that brought it last`;
    return [make('h3', {}, heading), list];
  }

  check(check) {
    const body = make('div', {}, make('strong', {}, STEPS[check.step] ?? check.step), ` ${check.say}`);
    const pairs = [['it came with', check.came], [COMPUTED[check.step], check.computed]].filter(([, value]) => value !== undefined);
    if (pairs.length) {
      const list = make('dl', { className: 'compare' });
      for (const [name, value] of pairs) list.append(make('dt', {}, name), make('dd', {}, value));
      body.append(list);
    }
    if (check.text !== undefined) body.append(check.state === 'wrong' ? this.signedText(check.text) : this.folded(check.text));
    const row = make('li', { className: `check ${check.state}` }, body);
    row.dataset.step = check.step;
    return row;
  }

  folded(text) {
    return make('details', {}, make('summary', { className: 'quiet' }, 'The text'), this.signedText(text));
  }

  /** The signed text line by line, each with what it is. */
  signedText(text) {
    const lines = text.split('\n').slice(0, -1);
    const names = LINES[lines[0]] ?? [];
    const table = make('table', { className: 'signed' });
    lines.forEach((line, index) => table.append(make('tr', {}, make('th', { scope: 'row' }, names[index] ?? ''), make('td', {}, line))));
    return table;
  }
}

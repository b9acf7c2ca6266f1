// The buttons that make the server misbehave, and what is in force.
import { byId } from './dom.js';
import { behaviourText } from './words.js';

const UNTIL_HEALED = 2147483647;
const CLOCK = 3600; // seconds
const DELAY = 3000; // milliseconds

const FAULTS = {
  away: { on: (next) => ({ drop: next }), off: { drop: 0 }, isOn: (state) => state.drop > 0 },
  error: { on: (next) => ({ status: { code: 500, next } }), off: { status: null }, isOn: (state) => state.status !== null },
  clock: { on: () => ({ 'clock-offset': CLOCK }), off: { 'clock-offset': 0 }, isOn: (state) => state['clock-offset'] !== 0 },
  slow: { on: () => ({ delay: DELAY }), off: { delay: 0 }, isOn: (state) => state.delay !== 0 },
};

export class Faults {
  constructor() {
    this.buttons = [...document.querySelectorAll('[data-fault]')];
    for (const button of this.buttons) button.addEventListener('click', () => this.toggle(button));
    for (const id of ['heal', 'heal-now']) byId(id).addEventListener('click', () => this.order('DELETE'));
    byId('send-directive').addEventListener('click', () => this.sendDirective());
  }

  show(state) {
    const text = behaviourText(state);
    byId('misbehaviour').textContent = text;
    byId('misbehaviour').title = text;
    byId('misbehaving').hidden = !text;
    for (const button of this.buttons) button.setAttribute('aria-pressed', String(FAULTS[button.dataset.fault].isOn(state)));
  }

  toggle(button) {
    const fault = FAULTS[button.dataset.fault];
    const isOn = button.getAttribute('aria-pressed') === 'true';
    return this.order('POST', isOn ? fault.off : fault.on(Number(byId('fault-count').value) || UNTIL_HEALED));
  }

  sendDirective() {
    try {
      return this.order('POST', { directives: JSON.parse(byId('directive').value) });
    } catch (error) {
      return this.complain(`That is no JSON: ${error.message}`);
    }
  }

  complain(text) {
    byId('fault-error').textContent = text;
  }

  async order(method, settings) {
    this.complain('');
    try {
      // The server takes orders from its own page alone: no other page can send this field.
      const answer = await fetch('/dev/behaviour', {
        method, headers: { 'X-Kestrova-Page': '1' }, body: settings && JSON.stringify(settings),
      });
      const state = await answer.json();
      if (answer.ok) this.show(state);
      else this.complain(state.error);
    } catch (error) {
      this.complain(`The server cannot be reached: ${error.message}`);
    }
  }
}

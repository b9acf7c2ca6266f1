// Making of elements and the forms of numbers and times. Whatever came from a client becomes text here and never markup.

/** An element with properties and children; a child that is a text becomes a text node. */
export function make(tag, properties = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(properties)) {
    if (name in element && name !== 'list') element[name] = value;
    else element.setAttribute(name, value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

/** The same for the parts of a drawing. */
export function draw(tag, attributes = {}, ...children) {
  const element = document.createElementNS('http://www.w3.org/2000/svg', tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  element.append(...children);
  return element;
}

export const byId = (id) => document.getElementById(id);

const pad = (number, digits = 2) => String(number).padStart(digits, '0');

/** The time of day with milliseconds, 20:19:39.123. */
export function timeOfDay(milliseconds) {
  const date = new Date(milliseconds);
  return `${pad(date.getHours())}:${pad(date.getMinutes())}:${pad(date.getSeconds())}.${pad(date.getMilliseconds(), 3)}`;
}

export function bytes(count) {
  if (count < 1000) return `${count} B`;
  if (count < 1e6) return `${(count / 1000).toFixed(1)} kB`;
  return `${(count / 1e6).toFixed(1)} MB`;
}

export function counted(count, one, many = `${one}s`) {
  return `${count.toLocaleString('en')} ${count === 1 ? one : many}`;
}

export function signed(number) {
  return `${number < 0 ? '−' : '+'}${Math.abs(number).toFixed(1)} s`;
}

/** A long name by its ends, which tell it from others. */
export const short = (name) => (name.length > 10 ? `${name.slice(0, 4)}…${name.slice(-4)}` : name);

// Small helpers that the other modules share.

export const byId = (id) => document.getElementById(id);

/** An element with attributes (or properties of the same name) and children: texts or elements. */
export function make(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name in element && name !== 'list') element[name] = value;
    else element.setAttribute(name, value);
  }
  element.append(...children);
  return element;
}

/** Replaces what an element holds, unless it is the same text already. */
export function setText(element, text) {
  if (element.textContent !== text) element.textContent = text;
}

let secrets = false;

/** Whether secrets are shown; asked of the server with each request. */
export const secretsShown = () => secrets;
export const showSecrets = (value) => { secrets = value; };

export function address(name, parameters = {}) {
  const query = new URLSearchParams(parameters);
  if (secrets) query.set('secrets', '1');
  return query.size ? `${name}?${query}` : name;
}

/** What the server answers. Its refusals are errors with its words. */
export async function ask(name, parameters) {
  const answer = await fetch(address(name, parameters));
  const text = await answer.text();
  if (!answer.ok) throw new Error(text);
  return text;
}

export async function tell(name, body) {
  const answer = await fetch(name, {
    method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body),
  });
  const text = await answer.text();
  if (!answer.ok) throw new Error(text);
  return JSON.parse(text);
}

// What a record of the journal holds: its texts unfolded, its bytes.

export const lanes = ['program', 'broker', 'cloud', 'kmpd', 'images', 'scripts', 'console'];

function parsed(text) {
  try {
    const value = JSON.parse(text);
    return typeof value === 'object' && value !== null ? value : undefined;
  } catch {
    return undefined;
  }
}

/** The same with each text that is JSON unfolded, to any depth. */
export function unfolded(value) {
  if (typeof value === 'string') {
    const inner = parsed(value);
    return inner === undefined ? value : unfolded(inner);
  }
  if (Array.isArray(value)) return value.map(unfolded);
  if (value === null || typeof value !== 'object') return value;
  return Object.fromEntries(Object.entries(value).map(([name, inner]) => [name, unfolded(inner)]));
}

function frame(record) {
  const body = record.body_hex === undefined
    ? new TextEncoder().encode(record.body)
    : Uint8Array.from(record.body_hex.match(/../g) ?? [], (byte) => parseInt(byte, 16));
  const bytes = new Uint8Array(8 + body.length);
  const view = new DataView(bytes.buffer);
  view.setUint16(0, 0xa1b2);
  view.setUint16(2, record.type);
  view.setUint32(4, body.length);
  bytes.set(body, 8);
  return bytes;
}

/** The bytes of a message as a dump, or "" where a record has none. */
export function bytes(record) {
  let all;
  if (record.kind === 'bad_message') all = Uint8Array.from(record.bytes.match(/../g) ?? [], (byte) => parseInt(byte, 16));
  else if (record.type !== undefined) all = frame(record);
  else return '';
  const rows = [];
  for (let at = 0; at < all.length; at += 16) {
    const part = [...all.subarray(at, at + 16)];
    const hex = part.map((byte) => byte.toString(16).padStart(2, '0')).join(' ').padEnd(48);
    const text = part.map((byte) => (byte >= 32 && byte < 127 ? String.fromCharCode(byte) : '.')).join('');
    rows.push(`${at.toString(16).padStart(4, '0')}  ${hex} ${text}`);
  }
  return rows.join('\n');
}

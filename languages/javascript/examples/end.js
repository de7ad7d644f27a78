// What the two examples share: their options, the keys that these name, and the counts.

import { readFileSync } from 'node:fs';
import { parseArgs } from 'node:util';

import { Key, check, make } from 'vesk-framing';

const REQUIRED = ['framing', 'port', 'out-label', 'in-label'];
const OPTIONAL = ['out-key', 'in-key', 'old-in-key'];
const DEFAULTS = { 'out-digest': 'sha256', 'in-digest': 'sha256', 'old-in-digest': 'sha256' };

/** The options of the command line, with those that only one program has. */
export function readOptions(moreRequired = [], moreDefaults = {}) {
  const required = [...REQUIRED, ...moreRequired];
  const defaults = { ...DEFAULTS, ...moreDefaults };
  const options = Object.fromEntries([...required, ...OPTIONAL, ...Object.keys(defaults)]
    .map((name) => [name, { type: 'string' }]));
  const { values } = parseArgs({ options });
  const missing = required.filter((name) => values[name] === undefined);
  if (missing.length !== 0) {
    throw new Error(`missing: ${missing.map((name) => `--${name}`).join(' ')}`);
  }
  return { ...defaults, ...values };
}

/** What a program signs and checks with, and its counts. "In" is what it receives, "out" what it makes. */
export class End {
  #framing;
  #outLabel;
  #inLabel;
  #outKey;
  #inKey;
  // The second key that is accepted while keys are changed; null if there is none.
  #oldInKey;
  counts = { sent: 0, received: 0, refused: 0, wrong: 0, key: 0, old_key: 0 };

  constructor(options) {
    this.#framing = options.framing;
    this.#outLabel = Number(options['out-label']);
    this.#inLabel = Number(options['in-label']);
    this.#outKey = readKey(options['out-key'], options['out-digest']);
    this.#inKey = readKey(options['in-key'], options['in-digest']);
    this.#oldInKey = options['old-in-key'] === undefined ? null
      : readKey(options['old-in-key'], options['old-in-digest']);
  }

  /** Sends a signed datagram by send(datagram). */
  send(further, payload, send) {
    send(make(this.#framing, { label: this.#outLabel, further, payload }, this.#outKey));
    this.counts.sent += 1;
  }

  /** Counts a datagram that arrived. Its fields, or null if it is refused or isExpected(fields) is false. */
  receive(datagram, isExpected = () => true) {
    const found = check(this.#framing, datagram, this.#inKey, this.#oldInKey);
    if (!found.ok) {
      this.counts.refused += 1;
      return null;
    }
    if (found.label !== this.#inLabel || !isExpected(found)) {
      this.counts.wrong += 1;
      return null;
    }
    this.counts.received += 1;
    this.counts[found.match] += 1;
    return found;
  }
}

/** The key in a file of hexadecimal digits and white space, as `vesk-controller --new-key` writes it. */
function readKey(file, digest) {
  if (file === undefined) {
    return Key.empty();
  }
  const digits = readFileSync(file, 'ascii').replace(/\s/g, '');
  if (!/^([0-9a-fA-F]{2})*$/.test(digits)) {
    throw new Error(`${file}: not hexadecimal digits`);
  }
  return new Key(digest, Buffer.from(digits, 'hex'));
}

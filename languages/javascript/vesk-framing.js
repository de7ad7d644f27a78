// Makes, checks and relabels the datagrams that a Vesk forwarder accepts and sends: UDPv1 and UDPv2, as
// docs/wire-format.md describes them. For peers and upstream services. vesk-framing.d.ts describes each function.

import { createHmac, createSecretKey, timingSafeEqual } from 'node:crypto';

import {
  MAX_DATAGRAM, coveredBy, layoutOf, lengthFault, payloadOffset, readLabel, writeHeaderLength, writeLabel,
} from './layout.js';

export { MAX_DATAGRAM };
export const MAX_KEY = 128;

const TEXTS = new Map([
  ['key_length', 'the key does not have 1 to 128 bytes'],
  ['too_long', 'the datagram is longer than 2,048 bytes'],
  ['too_short', 'the datagram is shorter than its header'],
  ['header_length', 'the header length of the datagram is out of range'],
  ['hmac', 'the HMAC of the datagram is wrong'],
  ['invalid_argument', 'an argument is invalid'],
  ['no_room', 'the datagram does not fit'],
  ['no_payload', 'a UDPv1 datagram needs a payload'],
]);

/** The text for a reason, in English, without a full stop. */
export function reasonText(reason) {
  return TEXTS.get(reason) ?? reason;
}

export class FramingError extends Error {
  constructor(reason, detail) {
    super(detail === undefined ? reasonText(reason) : `${reasonText(reason)}: ${detail}`);
    this.name = 'FramingError';
    this.reason = reason;
  }
}

// Returns the HMAC field that a key gives a datagram. Only this module can ask a key.
let hmacField;

export class Key {
  #digest;
  // Null for a key without bytes.
  #secret;

  constructor(digest, bytes) {
    requireThat(digest === 'sha1' || digest === 'sha256', 'unknown digest');
    requireBytes(bytes, 'the key');
    if (bytes.length === 0 || bytes.length > MAX_KEY) {
      throw new FramingError('key_length');
    }
    this.#digest = digest;
    this.#secret = createSecretKey(bytes);
  }

  static empty() {
    const key = new Key('sha256', new Uint8Array(1));
    key.#secret = null;
    return key;
  }

  static {
    hmacField = (key, layout, datagram, payloadAt) => {
      // A shorter digest is padded with zeros.
      const field = new Uint8Array(layout.hmacLength);
      if (key.#secret !== null) {
        const hmac = createHmac(key.#digest, key.#secret);
        coveredBy(layout, datagram, payloadAt).forEach((part) => hmac.update(part));
        field.set(hmac.digest().subarray(0, field.length));
      }
      return field;
    };
  }
}

export function make(framing, { label, payload = new Uint8Array(0), further = new Uint8Array(0) } = {}, key) {
  const layout = requireLayout(framing);
  requireKey(key);
  requireLabel(label);
  requireBytes(payload, 'the payload');
  requireFurther(layout, further);
  if (layout.hasHeaderLength && payload.length === 0) {
    throw new FramingError('no_payload');
  }
  const payloadAt = layout.headerSize + further.length;
  if (payloadAt + payload.length > MAX_DATAGRAM) {
    throw new FramingError('too_long');
  }
  const datagram = new Uint8Array(payloadAt + payload.length);
  writeHeaderLength(layout, datagram, payloadAt);
  writeLabel(layout, datagram, label);
  datagram.set(further, layout.headerSize);
  datagram.set(payload, payloadAt);
  sign(layout, datagram, key);
  return datagram;
}

export function parse(framing, datagram) {
  const layout = requireLayout(framing);
  requireBytes(datagram, 'the datagram');
  const reason = lengthFault(layout, datagram);
  return reason === null ? { ok: true, ...fieldsOf(layout, datagram) } : { ok: false, reason };
}

export function check(framing, datagram, key, oldKey) {
  requireKey(key);
  if (oldKey !== undefined && oldKey !== null) {
    requireKey(oldKey);
  }
  const fields = parse(framing, datagram);
  if (!fields.ok) {
    return fields;
  }
  const layout = layoutOf(framing);
  if (isSigned(layout, datagram, key)) {
    return { ...fields, match: 'key' };
  }
  if (oldKey && isSigned(layout, datagram, oldKey)) {
    return { ...fields, match: 'old_key' };
  }
  return { ok: false, reason: 'hmac' };
}

export function relabel(framing, datagram, label, key) {
  const layout = requireLayout(framing);
  requireBytes(datagram, 'the datagram');
  requireLabel(label);
  requireKey(key);
  const reason = lengthFault(layout, datagram);
  if (reason !== null) {
    throw new FramingError(reason);
  }
  writeLabel(layout, datagram, label);
  sign(layout, datagram, key);
}

export function largestPayload(framing, ip, mtu, furtherLength = 0) {
  const layout = requireLayout(framing);
  requireThat(ip === 4 || ip === 6, 'the IP version is neither 4 nor 6');
  requireThat(isLength(mtu), 'the MTU is not a length');
  requireThat(isLength(furtherLength), 'furtherLength is not a length');
  requireThat(layout.hasHeaderLength || furtherLength === 0, 'UDPv2 has no further header bytes');
  const belowUdp = ip === 4 ? 20 : 40;
  const room = Math.min(mtu - belowUdp - 8, MAX_DATAGRAM) - layout.headerSize - furtherLength;
  if (room < (layout.hasHeaderLength ? 1 : 0)) {
    throw new FramingError('no_room');
  }
  return room;
}

function fieldsOf(layout, datagram) {
  const payloadAt = payloadOffset(layout, datagram);
  return {
    label: readLabel(layout, datagram),
    further: datagram.subarray(layout.headerSize, payloadAt),
    payload: datagram.subarray(payloadAt),
  };
}

function sign(layout, datagram, key) {
  datagram.set(hmacField(key, layout, datagram, payloadOffset(layout, datagram)));
}

function isSigned(layout, datagram, key) {
  const expected = hmacField(key, layout, datagram, payloadOffset(layout, datagram));
  return timingSafeEqual(datagram.subarray(0, expected.length), expected);
}

function requireThat(condition, detail) {
  if (!condition) {
    throw new FramingError('invalid_argument', detail);
  }
}

function requireLayout(framing) {
  const layout = layoutOf(framing);
  requireThat(layout !== undefined, 'unknown framing');
  return layout;
}

function requireKey(key) {
  requireThat(key instanceof Key, 'the key is not a Key');
}

function requireBytes(bytes, name) {
  requireThat(bytes instanceof Uint8Array, `${name} is not a Uint8Array`);
}

function requireFurther(layout, further) {
  requireBytes(further, 'further');
  requireThat(layout.hasHeaderLength || further.length === 0, 'UDPv2 has no further header bytes');
}

function requireLabel(label) {
  requireThat(Number.isInteger(label) && label >= 0 && label <= 0xffffffff, 'the label is not a 32-bit number');
}

function isLength(value) {
  return Number.isSafeInteger(value) && value >= 0;
}

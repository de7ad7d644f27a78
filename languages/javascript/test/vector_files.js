// Reads the test vectors of the folder VESK_VECTORS, or of the one in the repository, and compares the package with them.

import { readFileSync } from 'node:fs';

import { Key, check, make, relabel } from 'vesk-framing';

const FOLDER = process.env.VESK_VECTORS ?? new URL('../../../vectors', import.meta.url).pathname;

const BYTES = ['key', 'further', 'payload', 'hmac', 'datagram', 'from_key', 'to_key', 'in_datagram', 'out_datagram'];

/** The vectors of a file, with bytes in place of hexadecimal digits. */
export function readVectors(name, kind) {
  const file = JSON.parse(readFileSync(`${FOLDER}/${name}`, 'utf8'));
  if (file.format !== 1 || file.kind !== kind || file.vectors.length === 0) {
    throw new Error(`${name}: format ${file.format}, kind ${file.kind}, ${file.vectors.length} vectors`);
  }
  for (const vector of file.vectors) {
    for (const field of BYTES.filter((field) => field in vector)) {
      vector[field] = Buffer.from(vector[field], 'hex');
    }
  }
  return file.vectors;
}

export function allDatagrams() {
  return [...readVectors('datagrams.json', 'datagrams'), ...readVectors('keys.json', 'datagrams')];
}

/** Without the lateral ones: only instances of the forwarder read a lateral header. */
export function refusals() {
  return readVectors('refusals.json', 'refusals').filter(({ operation }) => operation !== 'lateral');
}

/** No bytes are no key. */
function keyOf(digest, bytes) {
  return bytes.length === 0 ? Key.empty() : new Key(digest, bytes);
}

/** In what the package differs from a vector of the kind datagrams; null if it agrees. */
export function datagramFault(v) {
  const key = keyOf(v.digest, v.key);
  const found = check(v.framing, v.datagram, key);
  if (!found.ok) {
    return found.reason;
  }
  let made;
  try {
    made = make(v.framing, v, key);
  } catch (error) {
    return error.reason;
  }
  const agreements = {
    label: found.label === v.label,
    match: found.match === 'key',
    further: v.further.equals(found.further),
    payload: v.payload.equals(found.payload),
    header_length: v.datagram.length - found.payload.length === v.header_length,
    datagram: v.datagram.equals(made),
    hmac: v.hmac.equals(made.subarray(0, v.hmac.length)),
  };
  return Object.keys(agreements).find((name) => !agreements[name]) ?? null;
}

/** The same for the kind relabel. */
export function relabelFault(v) {
  const datagram = Buffer.from(v.in_datagram);
  const found = check(v.framing, datagram, keyOf(v.from_digest, v.from_key));
  if (!found.ok) {
    return found.reason;
  }
  relabel(v.framing, datagram, v.to_label, keyOf(v.to_digest, v.to_key));
  return v.out_datagram.equals(datagram) ? null : 'out_datagram';
}

/** The reason for which the package refuses what a vector of the kind refusals describes; null if it accepts it. */
export function reasonFor(v) {
  if (v.operation !== 'key') {
    return check(v.framing, v.datagram, keyOf(v.digest, v.key)).reason ?? null;
  }
  try {
    return new Key(v.digest, v.key) && null;
  } catch (error) {
    return error.reason;
  }
}

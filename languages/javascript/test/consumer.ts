// Uses every declaration of vesk-framing.d.ts, rightly and wrongly. tsc checks it; nothing runs it.

import {
  FramingError, Key, MAX_DATAGRAM, MAX_KEY, check, largestPayload, make, parse, reasonText, relabel,
} from 'vesk-framing';
import type { CheckedFields, Content, Digest, Fields, Framing, Reason, Refusal, RefusalReason } from 'vesk-framing';

const framing: Framing = 'udpv1';
const digest: Digest = 'sha1';
const key = new Key(digest, new Uint8Array(MAX_KEY));
const content: Content = { label: 1, payload: new Uint8Array(1), further: new Uint8Array(1) };
const datagram: Uint8Array = make(framing, content, key);
const longest: 2048 = MAX_DATAGRAM;
const payload: number = largestPayload('udpv2', 6, longest) + largestPayload(framing, 4, 1500, 2);
relabel(framing, datagram, payload, Key.empty());

const parsed = parse(framing, datagram);
const found = check(framing, datagram, key);
const results: [Fields | Refusal, CheckedFields | Refusal] = [parsed, found];
check(framing, datagram, key, null);
check(framing, datagram, key, key);

// @ts-expect-error: the datagram may be refused, and then has no payload.
found.payload;
if (found.ok) {
  const isOld: boolean = found.match === 'old_key';
  const parts: [number, Uint8Array, Uint8Array] = [found.label, found.further, found.payload];
  console.log(isOld, parts, results);
  // @ts-expect-error: an accepted datagram has no reason.
  found.reason;
} else {
  const reason: RefusalReason = found.reason;
  console.log(reasonText(reason));
}
if (parsed.ok) {
  // @ts-expect-error: parse checks no key.
  parsed.match;
}

try {
  make('udpv1', { label: 1 }, key);
} catch (error) {
  if (error instanceof FramingError) {
    const reason: Reason = error.reason;
    console.log(reason, error.message);
  }
}

// @ts-expect-error: unknown framing
parse('udpv3', datagram);
// @ts-expect-error: unknown digest
new Key('md5', datagram);
// @ts-expect-error: a text is not a key
make('udpv2', { label: 1 }, 'key');
// @ts-expect-error: an object is not a Key
make('udpv2', { label: 1 }, {});
// @ts-expect-error: no label
make('udpv2', {}, key);
// @ts-expect-error: text as payload
make('udpv2', { label: 1, payload: 'hello' }, key);
// @ts-expect-error: no key
check('udpv2', datagram);
// @ts-expect-error: unknown IP version
largestPayload('udpv2', 5, 1500);

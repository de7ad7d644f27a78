import assert from 'node:assert/strict';
import { readFile } from 'node:fs/promises';
import { test } from 'node:test';

import {
  FramingError, Key, check, largestPayload, make, parse, reasonText, relabel,
} from 'vesk-framing';

const hello = Buffer.from('hello');
const keyOf = (text) => new Key('sha256', Buffer.from(text));

function assertThrows(reason, use, detail) {
  assert.throws(use, (error) => error instanceof FramingError && error.reason === reason, detail);
}

test('either of two keys is accepted', () => {
  const [old, current, foreign] = ['old', 'new', 'foreign'].map(keyOf);
  for (const framing of ['udpv1', 'udpv2']) {
    for (const [signer, oldKey, match, reason] of [
      [current, undefined, 'key'],
      [current, old, 'key'],
      [old, old, 'old_key'],
      [old, undefined, undefined, 'hmac'],
      [old, null, undefined, 'hmac'],
      [foreign, old, undefined, 'hmac'],
    ]) {
      const found = check(framing, make(framing, { label: 7, payload: hello }, signer), current, oldKey);
      assert.deepEqual([found.match, found.reason], [match, reason]);
      // Nothing of a refused datagram can be used by mistake.
      assert.equal(found.ok ? found.label : 'none', reason ? 'none' : 7);
      assert.equal('payload' in found, found.ok);
    }
  }
});

test('parse checks no HMAC', () => {
  const datagram = make('udpv1', { label: 0xfffffffe, payload: hello, further: Buffer.from('more') }, keyOf('key'));
  datagram[0] ^= 1;
  const { ok, label, further, payload } = parse('udpv1', datagram);
  assert.deepEqual([ok, label, `${Buffer.from(further)}`, `${Buffer.from(payload)}`], [true, 0xfffffffe, 'more', 'hello']);
});

test('a datagram can lie within a larger buffer', () => {
  const key = keyOf('key');
  const datagram = make('udpv1', { label: 7, payload: hello }, key);
  const whole = Buffer.alloc(100, 0xff);
  whole.set(datagram, 9);
  const part = whole.subarray(9, 9 + datagram.length);
  assert.equal(`${check('udpv1', part, key).payload}`, 'hello');
  relabel('udpv1', part, 8, key);
  assert.deepEqual(new Uint8Array(part), make('udpv1', { label: 8, payload: hello }, key));
  assert.ok(whole.subarray(0, 9).every((byte) => byte === 0xff));
});

test('make refuses what does not fit a datagram', () => {
  const key = keyOf('key');
  const bytes = (length) => new Uint8Array(length);
  assertThrows('no_payload', () => make('udpv1', { label: 7 }, key));
  assert.equal(make('udpv2', { label: 7 }, key).length, 20);
  for (const [framing, content] of [
    ['udpv1', { payload: bytes(2010) }],
    ['udpv1', { further: bytes(2009), payload: bytes(1) }],
    ['udpv2', { payload: bytes(2028) }],
  ]) {
    assert.equal(make(framing, { label: 7, ...content }, key).length, 2048);
    const longer = { label: 7, ...content, payload: bytes(content.payload.length + 1) };
    assertThrows('too_long', () => make(framing, longer, key));
  }
});

test('wrong arguments are refused', () => {
  const key = keyOf('key');
  const datagram = make('udpv2', { label: 7 }, Key.empty());
  const before = Buffer.from(datagram);
  const uses = {
    framing: () => make('udpv3', { label: 7 }, key),
    'name of a property of all objects': () => parse('constructor', datagram),
    'further header bytes in UDPv2': () => make('udpv2', { label: 7, further: hello }, key),
    'no content': () => make('udpv2', undefined, key),
    'no label': () => make('udpv2', {}, key),
    'negative label': () => make('udpv2', { label: -1 }, key),
    'label of 33 bits': () => make('udpv2', { label: 2 ** 32 }, key),
    'label with a fraction': () => make('udpv2', { label: 0.5 }, key),
    'text as payload': () => make('udpv2', { label: 7, payload: 'hello' }, key),
    'text as key': () => make('udpv2', { label: 7 }, 'key'),
    'text as datagram': () => check('udpv2', 'a text that is long enough', key),
    'no key': () => check('udpv2', datagram),
    'text as old key': () => check('udpv2', datagram, key, 'old'),
    'text as bytes of a key': () => new Key('sha256', 'key'),
    digest: () => new Key('md5', hello),
    'relabelled without key': () => relabel('udpv2', datagram, 8),
    'relabelled without label': () => relabel('udpv2', datagram, undefined, key),
  };
  for (const [name, use] of Object.entries(uses)) {
    assertThrows('invalid_argument', use, name);
  }
  assertThrows('too_short', () => relabel('udpv1', datagram, 8, key));
  assert.deepEqual(Buffer.from(datagram), before);
});

test('the bytes of a key are copied', () => {
  const bytes = Buffer.from('key');
  const key = new Key('sha256', bytes);
  bytes[0] ^= 1;
  assert.ok(check('udpv2', make('udpv2', { label: 7 }, keyOf('key')), key).ok);
});

test('a key does not show its bytes', () => {
  assert.deepEqual([JSON.stringify(keyOf('secret')), Object.keys(keyOf('secret'))], ['{}', []]);
});

test('the largest payload follows from the MTU', () => {
  for (const [framing, ip, mtu, further, expected] of [
    ['udpv1', 4, 1500, 0, 1434], ['udpv1', 4, 1500, 10, 1424], ['udpv1', 6, 1500, 0, 1414],
    ['udpv2', 4, 1500, 0, 1452], ['udpv2', 6, 1280, 0, 1212], ['udpv1', 4, 9000, 0, 2010],
    ['udpv2', 4, Number.MAX_SAFE_INTEGER, 0, 2028], ['udpv1', 4, 67, 0, 1], ['udpv2', 6, 68, 0, 0],
  ]) {
    assert.equal(largestPayload(framing, ip, mtu, further), expected);
    const content = { label: 7, payload: new Uint8Array(expected), further: new Uint8Array(further) };
    assert.equal(make(framing, content, Key.empty()).length, Math.min(mtu - (ip === 4 ? 28 : 48), 2048));
  }
  assert.equal(largestPayload('udpv1', 4, 1500), 1434);
});

test('the largest payload is refused', () => {
  for (const args of [['udpv1', 4, 66], ['udpv2', 6, 67], ['udpv1', 4, 0], ['udpv1', 4, 1500, Number.MAX_SAFE_INTEGER]]) {
    assertThrows('no_room', () => largestPayload(...args), `${args}`);
  }
  for (const args of [['udpv1', 4, -1], ['udpv1', 4, NaN], ['udpv1', 4, 1500, -1], ['udpv1', 4, 1500, 0.5],
    ['udpv2', 4, 1500, 1], ['udpv1', 5, 1500], ['udpv3', 4, 1500]]) {
    assertThrows('invalid_argument', () => largestPayload(...args), `${args}`);
  }
});

test('each reason has a text', () => {
  const reasons = ['key_length', 'too_long', 'too_short', 'header_length', 'hmac', 'invalid_argument', 'no_room',
    'no_payload'];
  const texts = reasons.map(reasonText);
  assert.equal(new Set(texts).size, reasons.length);
  assert.ok(texts.every((text) => text.includes(' ') && !text.includes('_')));
  assert.equal(new FramingError('no_room').message, reasonText('no_room'));
});

test('the types declare what the module exports', async () => {
  const types = await readFile(new URL('../vesk-framing.d.ts', import.meta.url), 'utf8');
  const declared = [...types.matchAll(/^export (?:class|const|function) (\w+)/gm)].map(([, name]) => name);
  assert.deepEqual(declared.sort(), Object.keys(await import('vesk-framing')).sort());
});

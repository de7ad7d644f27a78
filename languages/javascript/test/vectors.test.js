// The test vectors of docs/vectors.md. Each is also changed, because a test that accepts everything would pass the others.

import assert from 'node:assert/strict';
import { test } from 'node:test';

import { allDatagrams, datagramFault, readVectors, reasonFor, refusals, relabelFault } from './vector_files.js';

const REASONS = ['key_length', 'too_long', 'too_short', 'header_length', 'hmac'];

/** Calls use(offset) once for each byte, while one bit of it is changed. */
function eachFlip(bytes, use) {
  for (let i = 0; i < bytes.length; i += 1) {
    bytes[i] ^= 1 << (i % 8);
    use(i);
    bytes[i] ^= 1 << (i % 8);
  }
}

test('datagrams are accepted and made', () => {
  for (const v of allDatagrams()) {
    assert.equal(datagramFault(v), null, v.id);
  }
});

test('datagrams are relabelled', () => {
  for (const v of readVectors('relabel.json', 'relabel')) {
    assert.equal(relabelFault(v), null, v.id);
  }
});

test('keys and datagrams are refused', () => {
  for (const v of refusals()) {
    assert.equal(reasonFor(v), v.reason, v.id);
  }
  assert.deepEqual(new Set(refusals().map(({ reason }) => reason)), new Set(REASONS));
});

test('a changed byte of a datagram vector is noticed', () => {
  for (const v of allDatagrams()) {
    for (const field of ['key', 'further', 'payload', 'hmac', 'datagram']) {
      eachFlip(v[field], (offset) => assert.notEqual(datagramFault(v), null, `${v.id}: ${field}, byte ${offset}`));
    }
  }
});

test('a changed number or name of a datagram vector is noticed', () => {
  const other = { udpv1: 'udpv2', udpv2: 'udpv1', sha1: 'sha256', sha256: 'sha1' };
  for (const v of allDatagrams()) {
    const changes = [{ label: (v.label ^ 0x10000) >>> 0 }, { header_length: v.header_length + 1 },
      { framing: other[v.framing] }];
    if (v.key.length !== 0) {
      changes.push({ digest: other[v.digest] });
    }
    for (const change of changes) {
      assert.notEqual(datagramFault({ ...v, ...change }), null, `${v.id}: ${Object.keys(change)}`);
    }
  }
});

test('a changed relabel vector is noticed', () => {
  for (const v of readVectors('relabel.json', 'relabel')) {
    const labelAt = v.framing === 'udpv1' ? 34 : 16;
    for (const field of ['from_key', 'to_key', 'in_datagram', 'out_datagram']) {
      eachFlip(v[field], (offset) => {
        // Without a key the arriving label proves nothing, and the datagram that is forwarded lacks it.
        const free = field === 'in_datagram' && v.from_key.length === 0 && offset >= labelAt && offset < labelAt + 4;
        assert.equal(relabelFault(v) === null, free, `${v.id}: ${field}, byte ${offset}`);
      });
    }
    assert.notEqual(relabelFault({ ...v, to_label: (v.to_label ^ 1) >>> 0 }), null, v.id);
  }
});

/**
 * Makes, checks and relabels the datagrams that a Vesk forwarder accepts and sends. For peers and upstream services.
 *
 * Lengths and offsets are in bytes. Labels are numbers from 0 to 0xffffffff here, and big-endian in the datagrams.
 * A Buffer is a Uint8Array, so datagrams of node:dgram can be given as they are.
 *
 * What other hosts send never causes an exception: `parse` and `check` return a refusal. A mistake of the caller throws a
 * FramingError.
 */

/** The framing of the forwarder, which its command line chooses. */
export type Framing = 'udpv1' | 'udpv2';

export type Digest = 'sha1' | 'sha256';

/** Why a datagram is refused: the first reason that applies, in this order. The names are those of docs/vectors.md. */
export type RefusalReason =
  /** Longer than 2,048 bytes; also of a datagram that is to be made. */
  | 'too_long'
  /** Shorter than the header: 38 bytes in UDPv1, 20 bytes in UDPv2. */
  | 'too_short'
  /** UDPv1: the header length is below 38, or leaves no payload. */
  | 'header_length'
  /** The HMAC is not that of an accepted key; with an empty key, it is not zero. */
  | 'hmac';

/** All reasons of a FramingError. */
export type Reason =
  | RefusalReason
  /** A key has 1 to 128 bytes. */
  | 'key_length'
  /** A value of the wrong type or out of range, an unknown name, or further header bytes for UDPv2. */
  | 'invalid_argument'
  /** The MTU is too small for the smallest datagram. */
  | 'no_room'
  /** UDPv1 needs at least one byte of payload. */
  | 'no_payload';

/** The length of the longest datagram, its header included. */
export const MAX_DATAGRAM: 2048;

/** The length of the longest key. */
export const MAX_KEY: 128;

/** The text for a reason, in English, without a full stop. */
export function reasonText(reason: Reason): string;

/** The caller made a mistake. */
export class FramingError extends Error {
  constructor(reason: Reason, detail?: string);
  readonly name: 'FramingError';
  readonly reason: Reason;
}

/** A key with its digest. */
export class Key {
  /** A key of 1 to 128 bytes, which are copied. Throws `key_length` and `invalid_argument`. */
  constructor(digest: Digest, bytes: Uint8Array);

  /** A key without bytes, for a flow without a key: HMACs are zeros, and nothing is authenticated. */
  static empty(): Key;

  // Keeps another class from passing for a Key.
  #secret;
}

/** What a datagram is made of. */
export interface Content {
  label: number;
  /** At least one byte in UDPv1. */
  payload?: Uint8Array;
  /** UDPv1: header bytes behind the label, which forwarders pass on unchanged. */
  further?: Uint8Array;
}

/** The fields of a datagram. `further` and `payload` are parts of its memory, not copies. */
export interface Fields {
  ok: true;
  label: number;
  further: Uint8Array;
  payload: Uint8Array;
}

export interface CheckedFields extends Fields {
  /** Which key the datagram is signed with. */
  match: 'key' | 'old_key';
}

export interface Refusal {
  ok: false;
  reason: RefusalReason;
}

/** Returns a signed datagram. Throws `invalid_argument`, `no_payload`, `too_long`. */
export function make(framing: Framing, content: Content, key: Key): Uint8Array;

/**
 * Reads the fields of a datagram without checking its HMAC, so that the key can be chosen by the label. Anybody can have
 * written these fields. Throws `invalid_argument`.
 */
export function parse(framing: Framing, datagram: Uint8Array): Fields | Refusal;

/**
 * Reads the fields of a datagram and checks its HMAC, which is compared in constant time. While keys are changed,
 * `oldKey` is the second key that is accepted. Throws `invalid_argument`.
 */
export function check(framing: Framing, datagram: Uint8Array, key: Key, oldKey?: Key | null): CheckedFields | Refusal;

/**
 * Writes another label into a datagram and signs it with this key, in place. Does not check the HMAC that it replaces:
 * call `check` first. After an exception the datagram is unchanged. Throws `invalid_argument`, `too_long`, `too_short`,
 * `header_length`.
 */
export function relabel(framing: Framing, datagram: Uint8Array, label: number, key: Key): void;

/**
 * The length of the longest payload of a datagram that is not fragmented where packets have at most `mtu` bytes, IP
 * header included, without IP options; never more than fits into 2,048 bytes. Throws `invalid_argument`, and `no_room` if
 * not even the shortest payload fits.
 */
export function largestPayload(framing: Framing, ip: 4 | 6, mtu: number, furtherLength?: number): number;

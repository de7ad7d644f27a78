// The offsets of the framings, and the fields of a datagram. Internal to vesk-framing.js. All integers are big-endian.

export const MAX_DATAGRAM = 2048;

/** @typedef {{hmacLength: number, hasHeaderLength: boolean, labelAt: number, headerSize: number}} Layout */

// The HMAC is at offset 0. In UDPv1 the header length is behind it, and the HMAC covers the payload first.
const LAYOUTS = new Map([
  ['udpv1', Object.freeze({ hmacLength: 32, hasHeaderLength: true, labelAt: 34, headerSize: 38 })],
  ['udpv2', Object.freeze({ hmacLength: 16, hasHeaderLength: false, labelAt: 16, headerSize: 20 })],
]);

/** Undefined for an unknown framing. */
export function layoutOf(framing) {
  return LAYOUTS.get(framing);
}

/** The reason for which the lengths of a datagram are refused; null if they are right. */
export function lengthFault(layout, datagram) {
  if (datagram.length > MAX_DATAGRAM) {
    return 'too_long';
  }
  if (datagram.length < layout.headerSize) {
    return 'too_short';
  }
  const payloadAt = payloadOffset(layout, datagram);
  if (layout.hasHeaderLength && (payloadAt < layout.headerSize || payloadAt >= datagram.length)) {
    return 'header_length';
  }
  return null;
}

/** The offset of the payload, which only lengthFault checks. */
export function payloadOffset(layout, datagram) {
  return layout.hasHeaderLength ? viewOf(datagram).getUint16(layout.hmacLength) : layout.headerSize;
}

export function writeHeaderLength(layout, datagram, length) {
  if (layout.hasHeaderLength) {
    viewOf(datagram).setUint16(layout.hmacLength, length);
  }
}

export function readLabel(layout, datagram) {
  return viewOf(datagram).getUint32(layout.labelAt);
}

export function writeLabel(layout, datagram, label) {
  viewOf(datagram).setUint32(layout.labelAt, label);
}

/** What the HMAC covers, in order. */
export function coveredBy(layout, datagram, payloadAt) {
  const header = datagram.subarray(layout.hmacLength, payloadAt);
  const payload = datagram.subarray(payloadAt);
  return layout.hasHeaderLength ? [payload, header] : [header, payload];
}

function viewOf(datagram) {
  return new DataView(datagram.buffer, datagram.byteOffset, datagram.byteLength);
}

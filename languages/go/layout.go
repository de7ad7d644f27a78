package framing

import "encoding/binary"

// The header of UDPv1 without further bytes.
const maxHeaderSize = 38

// layout has the offsets of a framing. The HMAC is at offset 0.
type layout struct {
	hmacLength int
	// hasHeaderLength is true for UDPv1, whose header length is behind the HMAC, and whose HMAC covers the payload
	// first.
	hasHeaderLength bool
	labelAt         int
	headerSize      int
}

func layoutOf(version Version) (layout, error) {
	switch version {
	case UDPv1:
		return layout{hmacLength: 32, hasHeaderLength: true, labelAt: 34, headerSize: maxHeaderSize}, nil
	case UDPv2:
		return layout{hmacLength: 16, labelAt: 16, headerSize: 20}, nil
	}
	return layout{}, ErrInvalidArgument
}

// payloadOffset refuses a datagram whose lengths are wrong.
func (l layout) payloadOffset(datagram []byte) (int, error) {
	switch {
	case len(datagram) > MaxDatagram:
		return 0, ErrTooLong
	case len(datagram) < l.headerSize:
		return 0, ErrTooShort
	case !l.hasHeaderLength:
		return l.headerSize, nil
	}
	offset := int(binary.BigEndian.Uint16(datagram[l.hmacLength:]))
	if offset < l.headerSize || offset >= len(datagram) {
		return 0, ErrHeaderLength
	}
	return offset, nil
}

func (l layout) label(datagram []byte) uint32 {
	return binary.BigEndian.Uint32(datagram[l.labelAt:])
}

func (l layout) putLabel(datagram []byte, label uint32) {
	binary.BigEndian.PutUint32(datagram[l.labelAt:], label)
}

// covered returns what the HMAC covers, in order.
func (l layout) covered(datagram []byte, payloadAt int) (first, second []byte) {
	header, payload := datagram[l.hmacLength:payloadAt], datagram[payloadAt:]
	if l.hasHeaderLength {
		return payload, header
	}
	return header, payload
}

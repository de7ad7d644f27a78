// Package framing makes, checks and relabels the datagrams that a Vesk forwarder accepts and sends: UDPv1 and UDPv2,
// as docs/wire-format.md describes them. It is for peers and upstream services, and uses the standard library only.
//
// Lengths and offsets are in bytes. Labels are numbers here, and big-endian in the datagrams. The package has no
// state of its own, and all functions may be called from any goroutine at the same time, also with the same [Key].
//
// The format authenticates datagrams. It does not encrypt them, and an attacker can repeat them.
package framing

import "encoding/binary"

const (
	// MaxDatagram is the length of the longest datagram, its header included.
	MaxDatagram = 2048
	// MaxKey is the length of the longest key.
	MaxKey = 128
)

// Version is the framing of the forwarder, which its command line chooses.
type Version int

// The framings.
const (
	UDPv1 Version = 1
	UDPv2 Version = 2
)

// Content is what a datagram is made of.
type Content struct {
	Label uint32
	// Further holds the header bytes behind the label in UDPv1, which forwarders pass on unchanged.
	Further []byte
	// Payload has at least one byte in UDPv1.
	Payload []byte
}

// Fields are the fields of a datagram that was received. Further and Payload are parts of its slice.
type Fields struct {
	Label uint32
	// Match says which key the datagram is signed with. Parse leaves it MatchNone.
	Match   Match
	Further []byte
	Payload []byte
}

// Match says which of two keys a datagram is signed with.
type Match int

// The keys that Check may find.
const (
	MatchNone Match = iota
	MatchKey
	MatchOldKey
)

// Make returns a signed datagram. Errors: ErrInvalidArgument, ErrNoPayload, ErrTooLong.
func Make(version Version, content Content, key *Key) ([]byte, error) {
	return Append(nil, version, content, key)
}

// Append appends a signed datagram to buffer, so that one buffer serves many datagrams. The parts of the content must not
// overlap the room behind buffer. After an error, which is one of those of Make, it returns the buffer unchanged.
func Append(buffer []byte, version Version, content Content, key *Key) ([]byte, error) {
	layout, err := layoutOf(version)
	if err != nil {
		return buffer, err
	}
	if !key.usable() || (!layout.hasHeaderLength && len(content.Further) != 0) {
		return buffer, ErrInvalidArgument
	}
	if layout.hasHeaderLength && len(content.Payload) == 0 {
		return buffer, ErrNoPayload
	}
	payloadAt := layout.headerSize + len(content.Further)
	if payloadAt+len(content.Payload) > MaxDatagram {
		return buffer, ErrTooLong
	}
	start := len(buffer)
	var header [maxHeaderSize]byte
	made := append(buffer, header[:layout.headerSize]...)
	made = append(made, content.Further...)
	made = append(made, content.Payload...)
	datagram := made[start:]
	if layout.hasHeaderLength {
		binary.BigEndian.PutUint16(datagram[layout.hmacLength:], uint16(payloadAt))
	}
	layout.putLabel(datagram, content.Label)
	key.sign(layout, datagram, payloadAt)
	return made, nil
}

// Parse reads the fields of a datagram without checking its HMAC, so that the key can be chosen by the label. Anybody
// can have written these fields. Errors: ErrInvalidArgument, ErrTooLong, ErrTooShort, ErrHeaderLength.
func Parse(version Version, datagram []byte) (Fields, error) {
	layout, err := layoutOf(version)
	if err != nil {
		return Fields{}, err
	}
	payloadAt, err := layout.payloadOffset(datagram)
	if err != nil {
		return Fields{}, err
	}
	return Fields{
		Label:   layout.label(datagram),
		Further: datagram[layout.headerSize:payloadAt:payloadAt],
		Payload: datagram[payloadAt:],
	}, nil
}

// Check reads the fields of a datagram and checks its HMAC, which is compared in constant time. While keys are changed,
// oldKey is the second key that is accepted; nil if there is none. After an error the fields are empty. Errors: those
// of Parse, ErrWrongHMAC.
func Check(version Version, datagram []byte, key, oldKey *Key) (Fields, error) {
	if !key.usable() || (oldKey != nil && !oldKey.usable()) {
		return Fields{}, ErrInvalidArgument
	}
	fields, err := Parse(version, datagram)
	if err != nil {
		return Fields{}, err
	}
	layout, _ := layoutOf(version)
	payloadAt := len(datagram) - len(fields.Payload)
	switch {
	case key.signed(layout, datagram, payloadAt):
		fields.Match = MatchKey
	case oldKey != nil && oldKey.signed(layout, datagram, payloadAt):
		fields.Match = MatchOldKey
	default:
		return Fields{}, ErrWrongHMAC
	}
	return fields, nil
}

// Relabel writes another label into a datagram and signs it with this key, in place. It does not check the HMAC that it
// replaces: call Check first. After an error, which is one of those of Parse, the datagram is unchanged.
func Relabel(version Version, datagram []byte, label uint32, key *Key) error {
	if !key.usable() {
		return ErrInvalidArgument
	}
	fields, err := Parse(version, datagram)
	if err != nil {
		return err
	}
	layout, _ := layoutOf(version)
	layout.putLabel(datagram, label)
	key.sign(layout, datagram, len(datagram)-len(fields.Payload))
	return nil
}

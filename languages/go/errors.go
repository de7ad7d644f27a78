package framing

// Reason is the error of every function of this package, and a constant. Compare it with == or errors.Is. The strings of
// the refusals are the reasons of docs/vectors.md.
type Reason string

// A key or a datagram is refused. Check returns the first reason that applies, in this order.
const (
	// ErrKeyLength: a key has 1 to 128 bytes.
	ErrKeyLength Reason = "key_length"
	// ErrTooLong: longer than 2,048 bytes; also of a datagram that is to be made.
	ErrTooLong Reason = "too_long"
	// ErrTooShort: shorter than the header, 38 bytes in UDPv1 and 20 bytes in UDPv2.
	ErrTooShort Reason = "too_short"
	// ErrHeaderLength: the header length of UDPv1 is below 38, or leaves no payload.
	ErrHeaderLength Reason = "header_length"
	// ErrWrongHMAC: the HMAC is not that of an accepted key; with an empty key, it is not zero.
	ErrWrongHMAC Reason = "hmac"
)

// The caller made a mistake.
const (
	// ErrInvalidArgument: an unknown framing, digest or IP version, a nil or zero Key, a negative length, or further
	// header bytes for UDPv2.
	ErrInvalidArgument Reason = "invalid_argument"
	// ErrNoRoom: the MTU is too small for the smallest datagram.
	ErrNoRoom Reason = "no_room"
	// ErrNoPayload: UDPv1 needs at least one byte of payload.
	ErrNoPayload Reason = "no_payload"
)

// Error returns a short text in English.
func (r Reason) Error() string {
	return "framing: " + r.text()
}

func (r Reason) text() string {
	switch r {
	case ErrKeyLength:
		return "the key does not have 1 to 128 bytes"
	case ErrTooLong:
		return "the datagram is longer than 2,048 bytes"
	case ErrTooShort:
		return "the datagram is shorter than its header"
	case ErrHeaderLength:
		return "the header length of the datagram is out of range"
	case ErrWrongHMAC:
		return "the HMAC of the datagram is wrong"
	case ErrInvalidArgument:
		return "an argument is invalid"
	case ErrNoRoom:
		return "the datagram does not fit"
	case ErrNoPayload:
		return "a UDPv1 datagram needs a payload"
	}
	return string(r)
}

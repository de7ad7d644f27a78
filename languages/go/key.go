package framing

import (
	"crypto/hmac"
	"crypto/sha1"
	"crypto/sha256"
	"hash"
	"sync"
)

// Digest is the hash function of the HMACs of a key.
type Digest int

// The digests.
const (
	SHA1   Digest = 1
	SHA256 Digest = 2
)

// The longest HMAC field, which is that of UDPv1.
const maxHMACField = 32

// Key is a key with its digest, prepared for many HMACs. NewKey and NewEmptyKey make one; other functions refuse the zero
// value, because a forgotten key must not turn authentication off. A Key must not be copied.
type Key struct {
	kind keyKind
	// macs holds a state for each goroutine that computes an HMAC, so that the key is hashed once and not for each
	// datagram.
	macs sync.Pool
}

type keyKind int

const (
	unusableKey keyKind = iota
	emptyKey
	secretKey
)

// NewKey makes a key of 1 to 128 bytes, which are copied. Errors: ErrInvalidArgument, ErrKeyLength.
func NewKey(digest Digest, secret []byte) (*Key, error) {
	var newHash func() hash.Hash
	switch digest {
	case SHA1:
		newHash = sha1.New
	case SHA256:
		newHash = sha256.New
	default:
		return nil, ErrInvalidArgument
	}
	if len(secret) == 0 || len(secret) > MaxKey {
		return nil, ErrKeyLength
	}
	kept := append([]byte(nil), secret...)
	newMAC := func() any { return hmac.New(newHash, kept) }
	return &Key{kind: secretKey, macs: sync.Pool{New: newMAC}}, nil
}

// NewEmptyKey makes a key without bytes, for a flow without a key: HMACs are zeros, and nothing is authenticated.
func NewEmptyKey() *Key {
	return &Key{kind: emptyKey}
}

func (k *Key) usable() bool {
	return k != nil && k.kind != unusableKey
}

// sign writes the HMAC field.
func (k *Key) sign(l layout, datagram []byte, payloadAt int) {
	field := k.field(l, datagram, payloadAt)
	copy(datagram, field[:l.hmacLength])
}

// signed compares the HMAC field.
func (k *Key) signed(l layout, datagram []byte, payloadAt int) bool {
	field := k.field(l, datagram, payloadAt)
	return hmac.Equal(datagram[:l.hmacLength], field[:l.hmacLength])
}

// field returns the HMAC field with zeros behind a shorter digest.
func (k *Key) field(l layout, datagram []byte, payloadAt int) (field [maxHMACField]byte) {
	if k.kind == emptyKey {
		return field
	}
	mac := k.macs.Get().(hash.Hash)
	defer k.macs.Put(mac)
	mac.Reset()
	first, second := l.covered(datagram, payloadAt)
	mac.Write(first)
	mac.Write(second)
	mac.Sum(field[:0])
	return field
}

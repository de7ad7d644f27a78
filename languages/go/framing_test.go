package framing

import (
	"bytes"
	"errors"
	"math"
	"strings"
	"sync"
	"testing"
)

func newKey(t testing.TB, secret string) *Key {
	t.Helper()
	key, err := NewKey(SHA256, []byte(secret))
	if err != nil {
		t.Fatal(err)
	}
	return key
}

func made(t testing.TB, version Version, content Content, key *Key) []byte {
	t.Helper()
	datagram, err := Make(version, content, key)
	if err != nil {
		t.Fatal(err)
	}
	return datagram
}

func TestEitherOfTwoKeysIsAccepted(t *testing.T) {
	old, current, foreign := newKey(t, "old"), newKey(t, "new"), newKey(t, "foreign")
	for _, version := range []Version{UDPv1, UDPv2} {
		for _, c := range []struct {
			signer, oldKey *Key
			match          Match
			err            error
		}{
			{current, nil, MatchKey, nil},
			{current, old, MatchKey, nil},
			{old, old, MatchOldKey, nil},
			{old, nil, MatchNone, ErrWrongHMAC},
			{foreign, old, MatchNone, ErrWrongHMAC},
		} {
			datagram := made(t, version, Content{Label: 7, Payload: []byte("hello")}, c.signer)
			fields, err := Check(version, datagram, current, c.oldKey)
			if fields.Match != c.match || !errors.Is(err, c.err) {
				t.Errorf("version %d: match %d, error %v; expected %d, %v", version, fields.Match, err, c.match, c.err)
			}
			if err != nil && (fields.Label != 0 || fields.Payload != nil) {
				t.Errorf("version %d: fields of a refused datagram: %v", version, fields)
			}
		}
	}
}

func TestParseChecksNoHMAC(t *testing.T) {
	content := Content{Label: 7, Further: []byte("more"), Payload: []byte("hello")}
	datagram := made(t, UDPv1, content, newKey(t, "key"))
	datagram[0] ^= 1
	fields, err := Parse(UDPv1, datagram)
	if err != nil || fields.Label != 7 || fields.Match != MatchNone || string(fields.Further) != "more" ||
		string(fields.Payload) != "hello" {
		t.Errorf("%v, %v", fields, err)
	}
	if extended := append(fields.Further, '!'); string(fields.Payload) != "hello" {
		t.Errorf("%q was appended to the further header bytes and overwrites the payload", extended)
	}
}

func TestAppendKeepsTheBuffer(t *testing.T) {
	key := newKey(t, "key")
	content := Content{Label: 7, Payload: []byte("hello")}
	buffer, err := Append([]byte("before"), UDPv2, content, key)
	if err != nil || !bytes.Equal(buffer, append([]byte("before"), made(t, UDPv2, content, key)...)) {
		t.Errorf("%x, %v", buffer, err)
	}
	buffer, err = Append([]byte("before"), UDPv1, Content{}, key)
	if err != ErrNoPayload || string(buffer) != "before" {
		t.Errorf("%q, %v", buffer, err)
	}
}

func TestMakeRefuses(t *testing.T) {
	key := newKey(t, "key")
	for name, c := range map[string]struct {
		version Version
		content Content
		key     *Key
		err     error
	}{
		"no payload":           {UDPv1, Content{}, key, ErrNoPayload},
		"empty payload":        {UDPv2, Content{}, key, nil},
		"longest UDPv1":        {UDPv1, Content{Payload: make([]byte, 2010)}, key, nil},
		"longer UDPv1":         {UDPv1, Content{Payload: make([]byte, 2011)}, key, ErrTooLong},
		"longest further":      {UDPv1, Content{Further: make([]byte, 2009), Payload: []byte{0}}, key, nil},
		"longer further":       {UDPv1, Content{Further: make([]byte, 2010), Payload: []byte{0}}, key, ErrTooLong},
		"longest UDPv2":        {UDPv2, Content{Payload: make([]byte, 2028)}, key, nil},
		"longer UDPv2":         {UDPv2, Content{Payload: make([]byte, 2029)}, key, ErrTooLong},
		"further bytes, UDPv2": {UDPv2, Content{Further: []byte{0}}, key, ErrInvalidArgument},
		"unknown version":      {3, Content{}, key, ErrInvalidArgument},
		"nil key":              {UDPv2, Content{}, nil, ErrInvalidArgument},
		"zero key":             {UDPv2, Content{}, &Key{}, ErrInvalidArgument},
	} {
		if _, err := Make(c.version, c.content, c.key); err != c.err {
			t.Errorf("%s: %v, not %v", name, err, c.err)
		}
	}
}

func TestCheckAndRelabelRefuseArguments(t *testing.T) {
	key := newKey(t, "key")
	datagram := made(t, UDPv2, Content{Label: 7}, NewEmptyKey())
	if _, err := Check(UDPv2, datagram, nil, NewEmptyKey()); err != ErrInvalidArgument {
		t.Errorf("nil key: %v", err)
	}
	if _, err := Check(UDPv2, datagram, key, &Key{}); err != ErrInvalidArgument {
		t.Errorf("zero old key: %v", err)
	}
	if _, err := Check(0, datagram, key, nil); err != ErrInvalidArgument {
		t.Errorf("unknown version: %v", err)
	}
	before := append([]byte(nil), datagram...)
	if err := Relabel(UDPv2, datagram, 8, nil); err != ErrInvalidArgument {
		t.Errorf("relabelled with a nil key: %v", err)
	}
	if err := Relabel(UDPv1, datagram, 8, key); err != ErrTooShort {
		t.Errorf("relabelled as UDPv1: %v", err)
	}
	if !bytes.Equal(datagram, before) {
		t.Errorf("changed to %x", datagram)
	}
}

func TestKeyIsCopied(t *testing.T) {
	secret := []byte("key")
	key, err := NewKey(SHA256, secret)
	if err != nil {
		t.Fatal(err)
	}
	secret[0] = 'x'
	if _, err := Check(UDPv2, made(t, UDPv2, Content{}, newKey(t, "key")), key, nil); err != nil {
		t.Error(err)
	}
	if _, err := NewKey(0, secret); err != ErrInvalidArgument {
		t.Errorf("unknown digest: %v", err)
	}
}

func TestGoroutinesShareAKey(t *testing.T) {
	key := newKey(t, "key")
	var all sync.WaitGroup
	for label := uint32(0); label < 8; label++ {
		all.Add(1)
		go func(label uint32) {
			defer all.Done()
			for i := 0; i < 200; i++ {
				datagram, _ := Make(UDPv1, Content{Label: label, Payload: []byte{byte(i)}}, key)
				if _, err := Check(UDPv1, datagram, key, nil); err != nil {
					t.Errorf("label %d: %v", label, err)
				}
			}
		}(label)
	}
	all.Wait()
}

func TestLargestPayload(t *testing.T) {
	for _, c := range []struct {
		version          Version
		ip               IP
		mtu, further     int
		expected         int
		err              error
		expectedDatagram int
	}{
		{UDPv1, IPv4, 1500, 0, 1434, nil, 1472},
		{UDPv1, IPv4, 1500, 10, 1424, nil, 1472},
		{UDPv1, IPv6, 1500, 0, 1414, nil, 1452},
		{UDPv2, IPv4, 1500, 0, 1452, nil, 1472},
		{UDPv2, IPv6, 1280, 0, 1212, nil, 1232},
		{UDPv1, IPv4, 9000, 0, 2010, nil, 2048},
		{UDPv2, IPv4, math.MaxInt, 0, 2028, nil, 2048},
		{UDPv1, IPv4, 67, 0, 1, nil, 39},
		{UDPv1, IPv4, 66, 0, 0, ErrNoRoom, 0},
		{UDPv2, IPv6, 68, 0, 0, nil, 20},
		{UDPv2, IPv6, 67, 0, 0, ErrNoRoom, 0},
		{UDPv1, IPv4, 0, 0, 0, ErrNoRoom, 0},
		{UDPv1, IPv4, 1500, math.MaxInt, 0, ErrNoRoom, 0},
		{UDPv1, IPv4, math.MinInt, 0, 0, ErrInvalidArgument, 0},
		{UDPv1, IPv4, 1500, -1, 0, ErrInvalidArgument, 0},
		{UDPv2, IPv4, 1500, 1, 0, ErrInvalidArgument, 0},
		{UDPv1, 5, 1500, 0, 0, ErrInvalidArgument, 0},
		{3, IPv4, 1500, 0, 0, ErrInvalidArgument, 0},
	} {
		found, err := LargestPayload(c.version, c.ip, c.mtu, c.further)
		if found != c.expected || err != c.err {
			t.Errorf("%+v: %d, %v", c, found, err)
		}
		if err == nil {
			content := Content{Further: make([]byte, c.further), Payload: make([]byte, found)}
			if length := len(made(t, c.version, content, NewEmptyKey())); length != c.expectedDatagram {
				t.Errorf("%+v: a datagram of %d bytes", c, length)
			}
		}
	}
}

func TestEachReasonHasAText(t *testing.T) {
	texts := map[string]Reason{}
	for _, reason := range []Reason{ErrKeyLength, ErrTooLong, ErrTooShort, ErrHeaderLength, ErrWrongHMAC,
		ErrInvalidArgument, ErrNoRoom, ErrNoPayload} {
		text := reason.Error()
		if other, found := texts[text]; found || !strings.Contains(text, " ") || strings.Contains(text, "_") {
			t.Errorf("%q of %s and %s", text, string(reason), string(other))
		}
		texts[text] = reason
	}
}

package framing

import (
	"bytes"
	"encoding/hex"
	"encoding/json"
	"fmt"
	"os"
	"path/filepath"
	"strings"
	"testing"
)

// octets are bytes that the files write as hexadecimal digits.
type octets []byte

func (o *octets) UnmarshalJSON(text []byte) error {
	var digits string
	if err := json.Unmarshal(text, &digits); err != nil {
		return err
	}
	decoded, err := hex.DecodeString(digits)
	*o = decoded
	return err
}

// vector has the fields of all kinds; docs/vectors.md describes them.
type vector struct {
	ID           string `json:"id"`
	Framing      string `json:"framing"`
	Digest       string `json:"digest"`
	Key          octets `json:"key"`
	Label        uint32 `json:"label"`
	Further      octets `json:"further"`
	Payload      octets `json:"payload"`
	HeaderLength int    `json:"header_length"`
	HMAC         octets `json:"hmac"`
	Datagram     octets `json:"datagram"`

	FromDigest  string `json:"from_digest"`
	FromKey     octets `json:"from_key"`
	InDatagram  octets `json:"in_datagram"`
	ToLabel     uint32 `json:"to_label"`
	ToDigest    string `json:"to_digest"`
	ToKey       octets `json:"to_key"`
	OutDatagram octets `json:"out_datagram"`

	Operation string `json:"operation"`
	Reason    Reason `json:"reason"`
}

// readVectors reads a file of the folder VESK_VECTORS, or of the one in the repository.
func readVectors(t *testing.T, name, kind string) []vector {
	t.Helper()
	folder := os.Getenv("VESK_VECTORS")
	if folder == "" {
		folder = "../../vectors"
	}
	text, err := os.ReadFile(filepath.Join(folder, name))
	if err != nil {
		t.Fatal(err)
	}
	var file struct {
		Format  int      `json:"format"`
		Kind    string   `json:"kind"`
		Vectors []vector `json:"vectors"`
	}
	if err := json.Unmarshal(text, &file); err != nil {
		t.Fatal(err)
	}
	if file.Format != 1 || file.Kind != kind || len(file.Vectors) == 0 {
		t.Fatalf("%s: format %d, kind %s, %d vectors", name, file.Format, file.Kind, len(file.Vectors))
	}
	return file.Vectors
}

func allDatagrams(t *testing.T) []vector {
	t.Helper()
	return append(readVectors(t, "datagrams.json", "datagrams"), readVectors(t, "keys.json", "datagrams")...)
}

func versionNamed(name string) Version {
	return map[string]Version{"udpv1": UDPv1, "udpv2": UDPv2}[name]
}

func digestNamed(name string) Digest {
	return map[string]Digest{"sha1": SHA1, "sha256": SHA256}[name]
}

// keyOf treats no bytes as no key.
func keyOf(digest string, secret []byte) (*Key, error) {
	if len(secret) == 0 {
		return NewEmptyKey(), nil
	}
	return NewKey(digestNamed(digest), secret)
}

// datagramFault says in what the package differs from a vector of the kind datagrams; nil if it agrees.
func datagramFault(v vector) error {
	key, err := keyOf(v.Digest, v.Key)
	if err != nil {
		return err
	}
	version := versionNamed(v.Framing)
	fields, err := Check(version, v.Datagram, key, nil)
	if err != nil {
		return err
	}
	made, err := Make(version, Content{Label: v.Label, Further: v.Further, Payload: v.Payload}, key)
	if err != nil {
		return err
	}
	switch {
	case fields.Label != v.Label:
		return fmt.Errorf("label %#x", fields.Label)
	case fields.Match != MatchKey:
		return fmt.Errorf("match %d", fields.Match)
	case !bytes.Equal(fields.Further, v.Further):
		return fmt.Errorf("further header bytes %x", fields.Further)
	case !bytes.Equal(fields.Payload, v.Payload):
		return fmt.Errorf("payload %x", fields.Payload)
	case len(v.Datagram)-len(fields.Payload) != v.HeaderLength:
		return fmt.Errorf("header length %d", len(v.Datagram)-len(fields.Payload))
	case !bytes.Equal(made, v.Datagram):
		return fmt.Errorf("made %x", made)
	case !bytes.HasPrefix(made, v.HMAC):
		return fmt.Errorf("HMAC of %x", made)
	}
	return nil
}

// relabelFault does the same for the kind relabel.
func relabelFault(v vector) error {
	from, err := keyOf(v.FromDigest, v.FromKey)
	if err != nil {
		return err
	}
	to, err := keyOf(v.ToDigest, v.ToKey)
	if err != nil {
		return err
	}
	version := versionNamed(v.Framing)
	datagram := append([]byte(nil), v.InDatagram...)
	if _, err := Check(version, datagram, from, nil); err != nil {
		return err
	}
	if err := Relabel(version, datagram, v.ToLabel, to); err != nil {
		return err
	}
	if !bytes.Equal(datagram, v.OutDatagram) {
		return fmt.Errorf("relabelled to %x", datagram)
	}
	return nil
}

// refusalFault does the same for the kind refusals.
func refusalFault(v vector) error {
	var err error
	if v.Operation == "key" {
		_, err = NewKey(digestNamed(v.Digest), v.Key)
	} else {
		key, keyErr := keyOf(v.Digest, v.Key)
		if keyErr != nil {
			return keyErr
		}
		_, err = Check(versionNamed(v.Framing), v.Datagram, key, nil)
	}
	if err != v.Reason {
		return fmt.Errorf("the error is %v", err)
	}
	return nil
}

func TestDatagrams(t *testing.T) {
	for _, v := range allDatagrams(t) {
		if fault := datagramFault(v); fault != nil {
			t.Errorf("%s: %v", v.ID, fault)
		}
	}
}

func TestRelabelled(t *testing.T) {
	for _, v := range readVectors(t, "relabel.json", "relabel") {
		if fault := relabelFault(v); fault != nil {
			t.Errorf("%s: %v", v.ID, fault)
		}
	}
}

// refusals leaves out the lateral ones: only instances of the forwarder read a lateral header.
func refusals(t *testing.T) (found []vector) {
	t.Helper()
	for _, v := range readVectors(t, "refusals.json", "refusals") {
		if v.Operation != "lateral" {
			found = append(found, v)
		}
	}
	return found
}

func TestRefusals(t *testing.T) {
	met := map[Reason]bool{}
	for _, v := range refusals(t) {
		met[v.Reason] = true
		if fault := refusalFault(v); fault != nil {
			t.Errorf("%s: %v, not %v", v.ID, fault, v.Reason)
		}
	}
	for _, reason := range []Reason{ErrKeyLength, ErrTooLong, ErrTooShort, ErrHeaderLength, ErrWrongHMAC} {
		if !met[reason] {
			t.Errorf("no vector is refused for %q", string(reason))
		}
	}
}

// eachFlip calls use once for each byte, while one bit of it is changed.
func eachFlip(b []byte, use func(offset int)) {
	for i := range b {
		b[i] ^= 1 << (i % 8)
		use(i)
		b[i] ^= 1 << (i % 8)
	}
}

// A test that accepts everything would also pass the tests above.
func TestChangedDatagramVectorsFail(t *testing.T) {
	for _, v := range allDatagrams(t) {
		for name, field := range map[string][]byte{
			"key": v.Key, "further": v.Further, "payload": v.Payload, "hmac": v.HMAC, "datagram": v.Datagram} {
			eachFlip(field, func(offset int) {
				if datagramFault(v) == nil {
					t.Errorf("%s: a bit in byte %d of %s makes no difference", v.ID, offset, name)
				}
			})
		}
		for name, changed := range changedNumbers(v) {
			if datagramFault(changed) == nil {
				t.Errorf("%s: another %s makes no difference", v.ID, name)
			}
		}
	}
}

func changedNumbers(v vector) map[string]vector {
	label, length, version := v, v, v
	label.Label ^= 1 << 16
	length.HeaderLength++
	version.Framing = strings.NewReplacer("1", "2", "2", "1").Replace(v.Framing)
	found := map[string]vector{"label": label, "header_length": length, "framing": version}
	if len(v.Key) != 0 {
		digest := v
		digest.Digest = map[string]string{"sha1": "sha256", "sha256": "sha1"}[v.Digest]
		found["digest"] = digest
	}
	return found
}

func TestChangedRelabelVectorsFail(t *testing.T) {
	for _, v := range readVectors(t, "relabel.json", "relabel") {
		labelAt := map[string]int{"udpv1": 34, "udpv2": 16}[v.Framing]
		for name, field := range map[string][]byte{
			"from_key": v.FromKey, "to_key": v.ToKey, "in_datagram": v.InDatagram, "out_datagram": v.OutDatagram} {
			eachFlip(field, func(offset int) {
				// Without a key the arriving label proves nothing, and the datagram that is forwarded lacks it.
				free := name == "in_datagram" && len(v.FromKey) == 0 && offset >= labelAt && offset < labelAt+4
				if fault := relabelFault(v); (fault == nil) != free {
					t.Errorf("%s: a bit in byte %d of %s: %v", v.ID, offset, name, fault)
				}
			})
		}
		v.ToLabel ^= 1
		if relabelFault(v) == nil {
			t.Errorf("%s: another to_label makes no difference", v.ID)
		}
	}
}

func TestChangedReasonsFail(t *testing.T) {
	for _, v := range refusals(t) {
		for _, reason := range []Reason{ErrKeyLength, ErrTooLong, ErrTooShort, ErrHeaderLength, ErrWrongHMAC} {
			changed := v
			changed.Reason = reason
			if reason != v.Reason && refusalFault(changed) == nil {
				t.Errorf("%s: is also refused for %q", v.ID, string(reason))
			}
		}
	}
}

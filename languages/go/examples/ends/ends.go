// Package ends has what the two examples share: their options, the keys that these name, and the counts.
package ends

import (
	"encoding/hex"
	"encoding/json"
	"errors"
	"flag"
	"fmt"
	"os"
	"strings"

	"vesk.example/framing"
)

// End is what a program signs and checks with. "In" is what it receives, "out" what it makes.
type End struct {
	Version           framing.Version
	Port              int
	OutLabel, InLabel uint32
	OutKey, InKey     *framing.Key
	// OldInKey is the second key that is accepted while keys are changed; nil if there is none.
	OldInKey *framing.Key
}

// ErrWrong is the error of a datagram with a correct HMAC that this end does not expect.
var ErrWrong = errors.New("unexpected datagram")

// Make returns a signed datagram with the label of this end.
func (e *End) Make(further, payload []byte) ([]byte, error) {
	return framing.Make(e.Version, framing.Content{Label: e.OutLabel, Further: further, Payload: payload}, e.OutKey)
}

// Check reads a datagram. The error is ErrWrong if it has another label.
func (e *End) Check(datagram []byte) (framing.Fields, error) {
	fields, err := framing.Check(e.Version, datagram, e.InKey, e.OldInKey)
	if err == nil && fields.Label != e.InLabel {
		return fields, ErrWrong
	}
	return fields, err
}

// Counts are what a program reports.
type Counts struct {
	Sent     int `json:"sent"`
	Received int `json:"received"`
	Refused  int `json:"refused"`
	Wrong    int `json:"wrong"`
	Key      int `json:"key"`
	OldKey   int `json:"old_key"`
}

// Add counts a datagram that arrived.
func (c *Counts) Add(match framing.Match, err error) {
	switch {
	case errors.Is(err, ErrWrong):
		c.Wrong++
	case err != nil:
		c.Refused++
	default:
		c.Received++
		if match == framing.MatchKey {
			c.Key++
		} else {
			c.OldKey++
		}
	}
}

// Print writes a line of JSON to standard output.
func Print(value any) error {
	return json.NewEncoder(os.Stdout).Encode(value)
}

// Fail ends the program.
func Fail(err error) {
	fmt.Fprintln(os.Stderr, err)
	os.Exit(1)
}

// ParseFlags reads the command line, with the flags that the program has added before.
func ParseFlags() (*End, error) {
	end := &End{}
	port := flag.Int("port", -1, "the echo service's own port, 0 for a free one, or the port of the forwarder")
	outLabel := flag.Int64("out-label", -1, "the label to write")
	inLabel := flag.Int64("in-label", -1, "the label that received datagrams must have")
	version := flag.String("framing", "", "udpv1 or udpv2")
	outKey, inKey, oldInKey := keyFlags("out"), keyFlags("in"), keyFlags("old-in")
	flag.Parse()

	versions := map[string]framing.Version{"udpv1": framing.UDPv1, "udpv2": framing.UDPv2}
	end.Version, end.Port = versions[*version], *port
	end.OutLabel, end.InLabel = uint32(*outLabel), uint32(*inLabel)
	if end.Version == 0 || *port < 0 || *port > 0xffff || int64(end.OutLabel) != *outLabel ||
		int64(end.InLabel) != *inLabel || flag.NArg() != 0 {
		return nil, errors.New("--framing, --port, --out-label and --in-label are required and within their ranges")
	}
	var errOut, errIn, errOld error
	end.OutKey, errOut = outKey.read()
	end.InKey, errIn = inKey.read()
	if *oldInKey.file != "" {
		end.OldInKey, errOld = oldInKey.read()
	}
	for _, err := range []error{errOut, errIn, errOld} {
		if err != nil {
			return nil, err
		}
	}
	return end, nil
}

type keyFlag struct{ file, digest *string }

func keyFlags(name string) keyFlag {
	return keyFlag{
		file:   flag.String(name+"-key", "", "a `file` with hexadecimal digits; without it, no key"),
		digest: flag.String(name+"-digest", "sha256", "sha1 or sha256"),
	}
}

// read reads a file as `vesk-controller --new-key` writes it.
func (f keyFlag) read() (*framing.Key, error) {
	if *f.file == "" {
		return framing.NewEmptyKey(), nil
	}
	text, err := os.ReadFile(*f.file)
	if err != nil {
		return nil, err
	}
	secret, err := hex.DecodeString(strings.Join(strings.Fields(string(text)), ""))
	if err != nil {
		return nil, fmt.Errorf("%s: %w", *f.file, err)
	}
	digests := map[string]framing.Digest{"sha1": framing.SHA1, "sha256": framing.SHA256}
	key, err := framing.NewKey(digests[*f.digest], secret)
	if err != nil {
		return nil, fmt.Errorf("%s: %w", *f.file, err)
	}
	return key, nil
}

package framing_test

import (
	"fmt"

	"vesk.example/framing"
)

// The datagram of docs/wire-format.md, forwarded with another label and key.
func Example() {
	key, err := framing.NewKey(framing.SHA256, []byte{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})
	if err != nil {
		panic(err)
	}
	datagram, err := framing.Make(framing.UDPv2, framing.Content{Label: 0x10001, Payload: []byte("hello")}, key)
	if err != nil {
		panic(err)
	}
	fmt.Printf("%x\n", datagram)

	fields, err := framing.Check(framing.UDPv2, datagram, key, nil)
	fmt.Printf("%#x %s %v\n", fields.Label, fields.Payload, err)

	datagram[20] = 'j'
	_, err = framing.Check(framing.UDPv2, datagram, key, nil)
	fmt.Println(err)
	// Output:
	// ca1c952dd355266ae936a76ea8716b860001000168656c6c6f
	// 0x10001 hello <nil>
	// framing: the HMAC of the datagram is wrong
}

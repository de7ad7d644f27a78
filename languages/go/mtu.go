package framing

// IP is the version of IP below a datagram.
type IP int

// The versions of IP.
const (
	IPv4 IP = 4
	IPv6 IP = 6
)

// LargestPayload returns the length of the longest payload of a datagram that is not fragmented where packets have at
// most mtu bytes, IP header included, without IP options; never more than fits into 2,048 bytes. Errors:
// ErrInvalidArgument, ErrNoRoom if not even the shortest payload fits.
func LargestPayload(version Version, ip IP, mtu, furtherLength int) (int, error) {
	layout, err := layoutOf(version)
	below := headersBelow(ip)
	if err != nil || below == 0 || mtu < 0 || furtherLength < 0 || (!layout.hasHeaderLength && furtherLength != 0) {
		return 0, ErrInvalidArgument
	}
	room := MaxDatagram
	if mtu < below+room {
		room = mtu - below
	}
	shortest := 0
	if layout.hasHeaderLength {
		shortest = 1
	}
	// The further length is on its own side, because a sum may overflow.
	if furtherLength > room-layout.headerSize-shortest {
		return 0, ErrNoRoom
	}
	return room - layout.headerSize - furtherLength, nil
}

// headersBelow returns the length of the IP and UDP headers, and 0 for an unknown version.
func headersBelow(ip IP) int {
	const udp = 8
	switch ip {
	case IPv4:
		return 20 + udp
	case IPv6:
		return 40 + udp
	}
	return 0
}

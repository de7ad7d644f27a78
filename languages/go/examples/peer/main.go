// Peer sends datagrams to a forwarder, checks the replies, and prints what it has counted.
package main

import (
	"bytes"
	"encoding/binary"
	"encoding/hex"
	"errors"
	"flag"
	"net"
	"os"
	"time"

	"vesk.example/framing"
	"vesk.example/framing/examples/ends"
)

const (
	mtu          = 1500
	numberLength = 8
)

// peer keeps a window of unanswered datagrams full.
type peer struct {
	end           *ends.End
	socket        *net.UDPConn
	forwarder     *net.UDPAddr
	count, window int
	timeout       time.Duration
	further       []byte
	// lengths is how many lengths of payloads there are.
	lengths    int
	unanswered map[uint64]bool
	counts     ends.Counts
}

func main() {
	if err := run(); err != nil {
		ends.Fail(err)
	}
}

func run() error {
	count := flag.Int("count", 0, "the number of datagrams to send")
	window := flag.Int("window", 32, "how many of them may be unanswered at a time")
	timeout := flag.Float64("timeout", 5, "how many `seconds` nothing may arrive before the peer gives up")
	furtherDigits := flag.String("further", "", "UDPv1: the further header bytes in hexadecimal `digits`")
	end, err := ends.ParseFlags()
	if err != nil {
		return err
	}
	further, err := hex.DecodeString(*furtherDigits)
	if err != nil {
		return err
	}
	largest, err := framing.LargestPayload(end.Version, framing.IPv4, mtu, len(further))
	if err != nil {
		return err
	}
	// Not connected, so that no ICMP error ends the exchange: a forwarder may start later.
	localhost := net.IPv4(127, 0, 0, 1)
	socket, err := net.ListenUDP("udp4", &net.UDPAddr{IP: localhost})
	if err != nil {
		return err
	}
	defer socket.Close()
	p := &peer{end: end, socket: socket, forwarder: &net.UDPAddr{IP: localhost, Port: end.Port}, count: *count, window: *window,
		timeout: time.Duration(*timeout * float64(time.Second)), further: further,
		lengths: largest - numberLength + 1, unanswered: map[uint64]bool{}}
	if err := p.exchange(); err != nil {
		return err
	}
	return ends.Print(struct {
		ends.Counts
		Lost int `json:"lost"`
	}{p.counts, len(p.unanswered)})
}

// exchange ends when all datagrams are answered, or when nothing arrives.
func (p *peer) exchange() error {
	// One byte more than the longest datagram, so that a longer one is refused rather than cut.
	buffer := make([]byte, framing.MaxDatagram+1)
	for {
		if err := p.fillWindow(); err != nil || len(p.unanswered) == 0 {
			return err
		}
		if err := p.socket.SetReadDeadline(time.Now().Add(p.timeout)); err != nil {
			return err
		}
		length, err := p.socket.Read(buffer)
		if errors.Is(err, os.ErrDeadlineExceeded) {
			return nil
		}
		if err != nil {
			return err
		}
		match, err := p.receive(buffer[:length])
		p.counts.Add(match, err)
	}
}

func (p *peer) fillWindow() error {
	for p.counts.Sent < p.count && len(p.unanswered) < p.window {
		number := uint64(p.counts.Sent)
		datagram, err := p.end.Make(p.further, p.payload(number))
		if err != nil {
			return err
		}
		if _, err := p.socket.WriteToUDP(datagram, p.forwarder); err != nil {
			return err
		}
		p.unanswered[number] = true
		p.counts.Sent++
	}
	return nil
}

func (p *peer) receive(datagram []byte) (framing.Match, error) {
	answer, err := p.end.Check(datagram)
	if err != nil {
		return framing.MatchNone, err
	}
	if len(answer.Payload) < numberLength || !bytes.Equal(answer.Further, p.further) {
		return framing.MatchNone, ends.ErrWrong
	}
	number := binary.BigEndian.Uint64(answer.Payload)
	if !p.unanswered[number] || !bytes.Equal(answer.Payload, p.payload(number)) {
		return framing.MatchNone, ends.ErrWrong
	}
	delete(p.unanswered, number)
	return answer.Match, nil
}

// payload begins with the number, and has another length for each of many numbers.
func (p *peer) payload(number uint64) []byte {
	payload := make([]byte, numberLength, framing.MaxDatagram)
	binary.BigEndian.PutUint64(payload, number)
	for j := uint64(0); j < number*37%uint64(p.lengths); j++ {
		payload = append(payload, byte(number+j))
	}
	return payload
}

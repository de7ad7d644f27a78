// Echo is an upstream service that answers each datagram with its payload. SIGTERM ends it; then it prints what it has
// counted.
package main

import (
	"errors"
	"net"
	"os"
	"os/signal"
	"syscall"

	"vesk.example/framing"
	"vesk.example/framing/examples/ends"
)

func main() {
	end, err := ends.ParseFlags()
	if err == nil {
		err = run(end)
	}
	if err != nil {
		ends.Fail(err)
	}
}

func run(end *ends.End) error {
	ended := make(chan os.Signal, 1)
	signal.Notify(ended, syscall.SIGTERM)
	socket, err := net.ListenUDP("udp4", &net.UDPAddr{IP: net.IPv4(127, 0, 0, 1), Port: end.Port})
	if err != nil {
		return err
	}
	if err := ends.Print(map[string]int{"port": socket.LocalAddr().(*net.UDPAddr).Port}); err != nil {
		return err
	}
	// Ends the read below.
	go func() {
		<-ended
		socket.Close()
	}()
	counts, err := serve(end, socket)
	if err != nil {
		return err
	}
	return ends.Print(counts)
}

// serve answers until the socket is closed.
func serve(end *ends.End, socket *net.UDPConn) (counts ends.Counts, err error) {
	// One byte more than the longest datagram, so that a longer one is refused rather than cut.
	buffer := make([]byte, framing.MaxDatagram+1)
	for {
		length, address, err := socket.ReadFromUDPAddrPort(buffer)
		if errors.Is(err, net.ErrClosed) {
			return counts, nil
		}
		if err != nil {
			return counts, err
		}
		question, err := end.Check(buffer[:length])
		counts.Add(question.Match, err)
		if err != nil {
			continue
		}
		// The forwarder passes the further header bytes of UDPv1 on, so the peer gets its own back.
		answer, err := end.Make(question.Further, question.Payload)
		if err != nil {
			return counts, err
		}
		if _, err := socket.WriteToUDPAddrPort(answer, address); err != nil {
			return counts, err
		}
		counts.Sent++
	}
}

// A forwarder between a peer and an upstream service on loopback. The test acts as its receive
// threads.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>

#include "support/bytes.h"
#include "support/forwarder.h"
#include "support/framed.h"
#include "support/udp_socket.h"

namespace vesk {

/// An endpoint's counters at one moment.
struct Counts {
    std::uint64_t rxDg = 0;
    std::uint64_t txDg = 0;
    std::uint64_t rxDgError = 0;
    std::uint64_t txDgDropped = 0;
    std::uint64_t dnTxDg = 0;
    std::uint64_t dnTxDgDropped = 0;

    bool operator==(const Counts&) const = default;
};

Counts countsOf(const VeskEndpointDescriptor& endpoint);
std::ostream& operator<<(std::ostream& out, const Counts& counts);

/// An endpoint without a flow that uses a socket of the test.
EndpointPtr listeningEndpoint(const UdpSocket& socket);

class DatapathTest : public ForwarderTest {
 protected:
    explicit DatapathTest(int framingVersion = 2, Ipv4Source ipv4Source = Ipv4Source::kernel)
        : ForwarderTest(framingVersion, ipv4Source) {}

    void SetUp() override;
    void TearDown() override;

    /// Declares a flow to the upstream service that uses label 0x1111 upstream and label 0x2222
    /// downstream.
    void declareFlow(std::uint32_t label, const std::string& furtherWords = "");
    /// The words of a "set" command that give a flow this key; `name` is "down_in", for example.
    static std::string keyWords(const std::string& name, const TestKey& key);
    /// A datagram in the forwarder's framing version.
    Bytes framed(std::uint32_t label, const Bytes& content, const TestKey& key = {}) const;

    /// Passes a datagram on as the downstream receive thread does, and returns what is printed.
    std::string arrive(const Bytes& datagram) { return arriveFrom(peer, datagram); }
    std::string arriveFrom(const UdpSocket& from, const Bytes& datagram);
    /// As the lateral receive thread does, with the return path from the lateral header.
    std::string arriveLaterally(const Bytes& datagram, const ReturnPath& returnPath);

    /// Passes a datagram on as the receive thread of this endpoint does with a batch of one.
    void hand(VeskEndpointDescriptor& endpoint, const Bytes& datagram, const SocketAddress& sender,
              const ReturnPath& returnPath);

    /// The flow's endpoint, created by a datagram and registered with the poll loop.
    EndpointPtr openFlow(std::uint32_t label);
    ReplyRoute routeOf(VeskEndpointDescriptor& endpoint);

    /// Enables the lateral stream as instance `index` of `instances`.
    void startLateral(std::uint32_t index, std::uint32_t instances);

    const Bytes payload = toBytes("payload");
    UdpSocket peer;
    UdpSocket upstream;
    UdpSocket downstreamSocket;
    UdpSocket lateralSocket;
    EndpointPtr downstream;
    EndpointPtr lateral;
    /// The key with which this instance signs lateral headers.
    const TestKey lateralKey{"sha256", Bytes(16, 0x42)};
    /// The local address at which datagrams of peers arrive, as the kernel reports it.
    LocalAddress localDestination;
};

}  // namespace vesk

// A forwarder without threads and with a few declared flows. The peer and the upstream services are
// real sockets on the loopback interface.
#pragma once

#include <memory>
#include <vector>

#include "base/socket_address.h"
#include "base/unique_fd.h"
#include "context/forwarder_context.h"
#include "datapath/upstream.h"
#include "support/byte_reader.h"
#include "support/keys.h"

namespace vesk::fuzz {

/// One end of the traffic, which exists as long as the process.
struct LoopbackSocket {
    explicit LoopbackSocket(int family);

    /// The next datagram that has arrived; empty if there is none.
    Bytes receive() const;

    UniqueFd fd;
    SocketAddress address;
};

/// The ends that all forwarders use.
struct Surroundings {
    LoopbackSocket peer{AF_INET};
    LoopbackSocket upstreamV4{AF_INET};
    LoopbackSocket upstreamV6{AF_INET6};
    LoopbackSocket otherInstance{AF_INET};

    /// Whether no end has a datagram to receive.
    bool quiet() const;
};

const Surroundings& surroundings();

/// The labels and keys of a flow. Replies are checked with the key that signs requests, and signed
/// with the key that checks requests.
struct KnownFlow {
    const TestKey* down;
    const TestKey* up;
    std::uint32_t upLabel;
    const LoopbackSocket* upstream;
};

/// The label in the replies of every flow.
inline constexpr std::uint32_t downLabel = 0x3456789A;

/// The requests to the poll loop.
struct PollRequests {
    int watched = 0;
    int armed = 0;
};

// This is instance 1 of four. Instance 2 is a known peer, and instance 3 is not. An instance owns
// the labels whose upper half is its number modulo 4.
inline constexpr std::uint32_t instanceCount = 4;
inline constexpr std::uint32_t thisInstance = 1;
inline constexpr std::uint32_t otherInstance = 2;

/// Labels for datagrams: flows with and without keys, an auxiliary flow, a flow without an upstream
/// address, unknown labels and labels of other instances.
const std::vector<std::uint32_t>& someLabels();

class LoopbackForwarder {
 public:
    LoopbackForwarder(int version, bool joined);
    LoopbackForwarder(const LoopbackForwarder&) = delete;
    LoopbackForwarder& operator=(const LoopbackForwarder&) = delete;

    /// Empty if datagrams with this label cannot be forwarded.
    static std::optional<KnownFlow> flowOf(std::uint32_t label);

    /// Sends the datagram from the peer and passes it on as the receive threads do: as sent by the
    /// peer, or as forwarded by another instance with the return path for the reply.
    void carry(View datagram, const ReturnPath& returnPath);

    /// Sends the datagram from upstream to the flow's socket and serves the socket as a worker does
    /// until it is drained.
    void carryReply(View datagram, const VeskEndpointDescriptor& flow);

    /// Does the poll loop's work.
    PollRequests applyPollRequests() const;

    ForwarderContext& context() { return *context_; }
    EndpointPtr downstream() const { return context_->downstreamEndpoint.load(); }
    EndpointPtr lateral() const { return context_->lateralEndpoint.load(); }

 private:
    void declareFlows() const;
    void join();

    std::shared_ptr<ForwarderContext> context_;
    UpstreamReceiver receiver_;
};

}  // namespace vesk::fuzz

// A forwarder without its threads, between a peer and upstream services that are real sockets on
// the loopback interface, with a handful of flows declared.
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

/// One end of the traffic, there for the life of the process.
struct LoopbackSocket {
    explicit LoopbackSocket(int family);

    /// The next datagram that arrived; nothing where there is none.
    Bytes receive() const;

    UniqueFd fd;
    SocketAddress address;
};

/// The ends around every forwarder.
struct Surroundings {
    LoopbackSocket peer{AF_INET};
    LoopbackSocket upstreamV4{AF_INET};
    LoopbackSocket upstreamV6{AF_INET6};
    LoopbackSocket otherInstance{AF_INET};

    /// Whether nothing waits to be received by anybody that the forwarder sends to.
    bool quiet() const;
};

const Surroundings& surroundings();

/// A flow as a datagram sees it. Replies are checked and signed with the same two keys the other
/// way round.
struct KnownFlow {
    const TestKey* down;
    const TestKey* up;
    std::uint32_t upLabel;
    const LoopbackSocket* upstream;
};

/// Written into replies of every flow.
inline constexpr std::uint32_t downLabel = 0x3456789A;

/// What the poll loop was asked for.
struct PollRequests {
    int watched = 0;
    int armed = 0;
};

// Of four instances this is number 1, number 2 is there too, and number 3 is not. Their labels are
// those whose upper half is 1, 2 and 3 modulo 4.
inline constexpr std::uint32_t instanceCount = 4;
inline constexpr std::uint32_t thisInstance = 1;
inline constexpr std::uint32_t otherInstance = 2;

/// Labels for datagrams: flows with and without keys, an auxiliary one, one that cannot be reached,
/// unknown ones and those of other instances.
const std::vector<std::uint32_t>& someLabels();

class LoopbackForwarder {
 public:
    LoopbackForwarder(int version, bool joined);
    LoopbackForwarder(const LoopbackForwarder&) = delete;
    LoopbackForwarder& operator=(const LoopbackForwarder&) = delete;

    /// Nothing where datagrams of the label have nowhere to go.
    static std::optional<KnownFlow> flowOf(std::uint32_t label);

    /// Sends the datagram from the peer and hands it on as the receive threads do: as the peer's
    /// own, or as forwarded by another instance, with what is to go back with the reply.
    void carry(View datagram, const ReturnPath& returnPath);

    /// Sends the datagram from upstream to the flow's own socket and serves that one as a worker
    /// does, until it is drained.
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

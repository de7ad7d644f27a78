// Returns replies: a reply from upstream is checked, relabelled, signed and sent to the flow's last
// sender, or to the instance that forwarded that sender's datagram. Runs on the receive workers.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "datapath/arming_queue.h"
#include "datapath/receive_batch.h"
#include "datapath/reply.h"
#include "log/log.h"
#include "net/endpoint.h"
#include "net/endpoint_cache.h"

namespace vesk {

struct ForwarderContext;

/// The state of one receive worker. Used only by that worker. Replies are held until the end of the
/// pass, and then leave together.
class UpstreamReceiver {
 public:
    struct Served {
        /// The number of datagrams received.
        int datagrams = 0;
        /// Whether to serve the socket again.
        bool again = false;
    };

    explicit UpstreamReceiver(std::shared_ptr<ForwarderContext> context);

    /// Makes one receive call on the socket, and handles the datagrams that it returns.
    Served serve(int socket);

    /// To be called after each pass. Sends the replies, arms the drained sockets, and releases the
    /// endpoints that must not be held while the worker waits; if `lines` has lines to be written,
    /// all endpoints. Returns the longest time until the next call; none if there is no limit.
    std::optional<std::chrono::milliseconds> endPass(const LogDelay& lines);

 private:
    Served serveUnprepared(int socket);
    Served serveEndpoint(const EndpointPtr& endpoint);
    int handleMessages(int received, VeskEndpointDescriptor& endpoint);
    void replyReceived(const ReceivedMessage& message, std::size_t index,
                       VeskEndpointDescriptor& endpoint);
    VeskEndpointDescriptor* flowOfReply(VeskEndpointDescriptor& endpoint, std::uint32_t label);
    void arm(const EndpointPtr& endpoint, std::uint32_t armings);
    void sendReplies();
    void letGo();

    const std::shared_ptr<ForwarderContext> context_;
    ReceiveBatch batch_;
    ReplySender replies_;
    ArmingQueue arming_;
    EndpointCache endpoints_;
};

/// Makes one receive call on an upstream read socket. Returns the number of datagrams received.
/// `keep` says whether to call again for the same socket. If not, the socket will be armed again or
/// its endpoint was removed.
int upstreamSocketRecv(int socket, bool& keep, UpstreamReceiver& receiver);

/// The counterpart for writing. No socket is watched for writing.
// Kept: part of the interface of the receive functions; it only logs that it is not implemented.
int upstreamSocketSend(int socket, bool& keep);

}  // namespace vesk

// Returns replies: a reply from upstream is checked, relabelled, signed and sent to the flow's last
// sender, or to the instance that forwarded that sender's datagram. Runs on the receive workers.
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "datapath/arming_queue.h"
#include "datapath/datagram_io.h"
#include "log/log.h"
#include "net/endpoint.h"
#include "net/endpoint_cache.h"

namespace vesk {

struct ForwarderContext;

/// The state of one receive worker. Used only by that worker.
class UpstreamReceiver {
 public:
    explicit UpstreamReceiver(std::shared_ptr<ForwarderContext> context);

    /// Handles one datagram on the socket at most. Returns whether to serve the socket again.
    bool serve(int socket);

    /// To be called after each pass. Arms the drained sockets, and releases the endpoints that must
    /// not be held while the worker waits; if `lines` has lines to be written, all endpoints.
    /// Returns the longest time until the next call; none if there is no limit.
    std::optional<std::chrono::milliseconds> endPass(const LogDelay& lines);

 private:
    bool serveUnprepared(EndpointPtr endpoint);
    bool serveEndpoint(const EndpointPtr& endpoint);
    void replyReceived(const EndpointPtr& endpoint, std::size_t length);
    void letGo();
    VeskEndpointDescriptor* flowOfReply(VeskEndpointDescriptor& endpoint, std::uint32_t label);

    const std::shared_ptr<ForwarderContext> context_;
    IncomingMessage incoming_;
    ArmingQueue arming_;
    EndpointCache endpoints_;
    CachedSlot downstream_;
    CachedSlot lateral_;
};

/// Handles one datagram on an upstream read socket at most. `keep` and the result (1 or 0) both say
/// whether to call again for the same socket. If not, the socket will be armed again or its
/// endpoint was removed.
int upstreamSocketRecv(int socket, bool& keep, UpstreamReceiver& receiver);

/// The counterpart for writing. No socket is watched for writing.
// Kept: part of the interface of the receive functions; it only logs that it is not implemented.
int upstreamSocketSend(int socket, bool& keep);

}  // namespace vesk

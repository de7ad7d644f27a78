// The way back: a reply from upstream is checked, relabelled, signed and sent to the flow's last
// sender, or to the instance that forwarded that sender's datagram.
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "datapath/arming_queue.h"
#include "datapath/datagram_io.h"
#include "log/log.h"
#include "net/endpoint.h"
#include "net/kept_endpoints.h"

namespace vesk {

struct ForwarderContext;

/// What one receive worker keeps between its calls. Used by that worker alone.
class UpstreamReceiver {
 public:
    explicit UpstreamReceiver(std::shared_ptr<ForwarderContext> context);

    /// Handles at most one datagram on the socket. Whether to serve it again.
    bool serve(int socket);

    /// To be called after each pass: arms what was drained, and lets go of what is not to be held
    /// while the worker waits; of everything if `lines` have to be written. How long until the next
    /// call at the latest; none for as long as nothing is to be done.
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
    KeptEndpoints endpoints_;
    KeptSlot downstream_;
    KeptSlot lateral_;
};

/// Handles at most one datagram on an upstream read socket. Called by the receive workers. Both
/// `keep` and the result (1 or 0) say whether to call again for the same socket; when not, the
/// socket is about to be armed again, or gone.
int upstreamSocketRecv(int socket, bool& keep, UpstreamReceiver& receiver);

/// The counterpart for writing. No socket is watched for that.
// Kept: part of the interface of the receive functions; its line says that it does nothing.
int upstreamSocketSend(int socket, bool& keep);

}  // namespace vesk

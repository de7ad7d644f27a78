// The way back: a reply from upstream is checked, relabelled, signed and sent to the flow's last
// sender, or to the instance that forwarded that sender's datagram.
#pragma once

#include <memory>
#include <vector>

#include "datapath/datagram_io.h"
#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

/// What one receive worker keeps between its calls. Used by that worker alone.
///
/// Sockets found drained are armed together: asking the poll thread is what a reply costs most.
/// Meanwhile they are held, so that none is closed, and its number used again, before the poll
/// thread was asked.
class UpstreamReceiver {
 public:
    explicit UpstreamReceiver(std::shared_ptr<ForwarderContext> context);

    ForwarderContext& context() { return *context_; }

    /// Handles at most one datagram of a prepared endpoint. Whether to serve it again.
    bool serve(const EndpointPtr& endpoint);

    /// Arms what was drained; to be called after each pass. Adds to `serving` what could not be
    /// armed: it must be read once more, or it never would be.
    void endPass(std::vector<int>& serving);

 private:
    void armDrained();
    bool armTogether() const;
    void arm(const VeskEndpointDescriptor& endpoint);

    const std::shared_ptr<ForwarderContext> context_;
    IncomingMessage incoming_;
    /// Never more than one datagram of the message channel carries.
    std::vector<EndpointPtr> drained_;
    std::vector<int> unarmed_;
};

/// Handles at most one datagram on an upstream read socket. Called by the receive workers. Both
/// `keep` and the result (1 or 0) say whether to call again for the same socket; when not, the
/// socket is about to be armed again, or gone.
int upstreamSocketRecv(int socket, bool& keep, UpstreamReceiver& receiver);

/// The counterpart for writing. No socket is watched for that.
int upstreamSocketSend(int socket, bool& keep);

}  // namespace vesk

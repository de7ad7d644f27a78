// Returns replies from upstream: each is checked, relabelled, signed and sent to the flow's last
// sender, or to the instance that forwarded that sender's datagram. Called by the receive workers.
#pragma once

#include <cstddef>
#include <memory>

#include "datapath/send_batch.h"
#include "datapath/wire/framing.h"
#include "net/endpoint.h"
#include "net/endpoint_cache.h"
#include "net/local_address.h"

namespace vesk {

struct ForwarderContext;

/// A reply in a receive buffer. Lengths are in bytes.
struct Reply {
    DatagramBuffer buffer;
    std::size_t length;
    std::size_t headerLength;
    const LocalAddress& localDestination;
};

/// The replies that a worker holds until the end of its pass, and the endpoints from which it sends
/// them. Used only by that worker.
class ReplySender {
 public:
    explicit ReplySender(ForwarderContext& context);

    /// Returns the reply to the last sender of `flow`. Each result is counted. The reply's buffer
    /// and the flow must stay valid until `sendHeld`.
    void returnReply(const Reply& reply, VeskEndpointDescriptor& flow);

    /// Sends all replies that are held.
    void sendHeld();

    /// Releases the endpoints. Nothing must be held.
    void letGo();

 private:
    /// `peerless`: no sender is known yet.
    enum class Verdict { accepted, forged, peerless, unsignable };

    Verdict convert(const Reply& reply, ReplyRoute& route, VeskEndpointDescriptor& flow) const;
    void hold(const Reply& reply, const ReplyRoute& route, VeskEndpointDescriptor& flow);
    void holdForInstance(const Reply& reply, const ReplyRoute& route, VeskEndpointDescriptor& flow);
    void address(OutgoingMessage& message, const ReplyRoute& route,
                 const VeskEndpointDescriptor& flow) const;
    static void sendFrom(CachedSlot& slot, SendBatch& replies);

    /// A reply with its lateral header, which makes it longer than in its receive buffer.
    using Wrapped = std::array<std::uint8_t, maxDatagramSize>;

    ForwarderContext& context_;
    CachedSlot downstream_;
    CachedSlot lateral_;
    SendBatch toPeers_;
    SendBatch toInstances_;
    /// One for each reply that `toInstances_` has room for. Made when first needed.
    std::unique_ptr<std::array<Wrapped, SendBatch::capacity>> wrapped_;
    std::size_t wrappedCount_ = 0;
};

}  // namespace vesk
